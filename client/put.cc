// Publishing: a temporary file beside the destination, and the request to rename it.

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/request.h"
#include "client/spelling.h"

namespace {

constexpr mode_t kPublicMode = 0644;
constexpr mode_t kRestrictedMode = 0600;

// A file under construction, which nobody replicates.
struct TempFile {
  char path[PATH_MAX];
  int fd;
};

// Makes it in the directory of `destination`. Returns 0 or an error number.
int make_temp_file(const char* destination, mode_t mode, TempFile* file) {
  constexpr char kName[] = "TempUpdate_XXXXXX";
  const size_t length = static_cast<size_t>(strrchr(destination, '/') + 1 - destination);
  if (length + sizeof kName > sizeof file->path) return ENAMETOOLONG;
  memcpy(file->path, destination, length);
  strcpy(file->path + length, kName);
  file->fd = mkostemp(file->path, O_CLOEXEC);
  if (file->fd < 0) return errno;
  const bool is_public = (mode & kPublicMode) == kPublicMode;
  if (fchmod(file->fd, is_public ? kPublicMode : kRestrictedMode) == 0) return 0;
  const int error = errno;
  close(file->fd);
  unlink(file->path);
  return error;
}

int write_all(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return 0;
}

// What the file is to hold: a descriptor to read, or else bytes.
struct Content {
  int fd;
  const char* data;
  size_t size;
};

// A larger file would fail every exchange from then on.
bool is_too_large(uint64_t size) {
  return size > UINT32_MAX;
}

int copy_all(int from, int to) {
  struct stat status;
  if (fstat(from, &status) != 0) return errno;
  if (S_ISREG(status.st_mode) && is_too_large(static_cast<uint64_t>(status.st_size))) return EFBIG;
  char buffer[16384];
  uint64_t total = 0;
  for (;;) {
    const ssize_t n = read(from, buffer, sizeof buffer);
    if (n == 0) return 0;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    total += static_cast<size_t>(n);
    if (is_too_large(total)) return EFBIG;
    const int error = write_all(to, buffer, static_cast<size_t>(n));
    if (error != 0) return error;
  }
}

// Writes the content and brings it to the disk; closes the file.
int fill(const Content& content, int fd) {
  int error = 0;
  if (content.fd >= 0)
    error = copy_all(content.fd, fd);
  else
    error = is_too_large(content.size) ? EFBIG : write_all(fd, content.data, content.size);
  if (error == 0 && fsync(fd) != 0) error = errno;
  if (close(fd) != 0 && error == 0) error = errno;
  return error;
}

int publish(const char* socket, const Content& content, const char* destination, mode_t mode,
            int timeout_ms, cluster_sync_result* result) {
  char spelling[PATH_MAX];
  TempFile file;
  int error = spell_destination(destination, spelling);
  if (error == 0) error = make_temp_file(spelling, mode, &file);
  if (error != 0) return error;
  error = fill(content, file.fd);
  if (error == 0) error = request_update(socket, file.path, spelling, timeout_ms, result);
  // Also when nobody knows what becomes of the request: a late rename must not undo what the caller
  // publishes next. A file that was renamed is not there any more.
  if (error != 0) unlink(file.path);
  return error;
}

}  // namespace

int cluster_sync_put(const char* socket, const void* data, size_t size, const char* destination,
                     mode_t mode, int timeout_ms, cluster_sync_result* result) {
  const Content content = {-1, static_cast<const char*>(data), size};
  return publish(socket, content, destination, mode, timeout_ms, result);
}

int cluster_sync_put_fd(const char* socket, int fd, const char* destination, mode_t mode,
                        int timeout_ms, cluster_sync_result* result) {
  if (fd < 0) return EBADF;
  return publish(socket, {fd, nullptr, 0}, destination, mode, timeout_ms, result);
}
