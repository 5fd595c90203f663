#include "platform/descriptor.h"

int write_fully(int fd, const void* data, size_t size) {
  const auto* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = write(fd, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return written < 0 ? errno : EIO;
    bytes += written;
    size -= static_cast<size_t>(written);
  }
  return 0;
}
