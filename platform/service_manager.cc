#include "platform/service_manager.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

bool service_manager_listens() {
  const char* path = getenv("NOTIFY_SOCKET");
  return path != nullptr && (*path == '/' || *path == '@');
}

void notify_service_manager(const char* assignments) {
  if (!service_manager_listens()) return;
  const char* path = getenv("NOTIFY_SOCKET");
  const size_t length = strlen(path);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (length >= sizeof address.sun_path) return;
  memcpy(address.sun_path, path, length);
  if (*path == '@') address.sun_path[0] = '\0';  // an abstract name
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  sendto(fd, assignments, strlen(assignments), MSG_DONTWAIT | MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&address),
         static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
  close(fd);
}
