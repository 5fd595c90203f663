#include "redundancy_health/catalog/confined_path.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "redundancy_health/catalog/digest_file.h"
#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/catalog/tree_scan.h"

bool relative_path_is_confined(const char* relative_path) {
  if (relative_path[0] == '/') return false;
  for (const char* component = relative_path; component != nullptr;) {
    const char* end = strchrnul(component, '/');
    if (end - component == 2 && component[0] == '.' && component[1] == '.') return false;
    component = *end == '/' ? end + 1 : nullptr;
  }
  return true;
}

bool relative_path_is_listable(const char* relative_path) {
  const char* as_read = relative_path + strspn(relative_path, " \t\n\v\f\r");
  if (as_read != relative_path && (*as_read == '\0' || !relative_path_is_confined(as_read))) {
    return false;
  }
  int depth = 0;
  const char* name = relative_path;
  for (const char* c = relative_path; *c != '\0'; ++c) {
    if (*c != '/') continue;
    if (c[1] != '/' && c[1] != '\0') ++depth;
    name = c + 1;
  }
  constexpr size_t prefix_length = sizeof(kDigestPrefix) - 1;
  const size_t length = strlen(name);
  // A name above NAME_MAX can be left to the file system.
  const bool leaves_no_room = length <= NAME_MAX && length + prefix_length > NAME_MAX;
  return depth <= kMaxScanDepth && !leaves_no_room && !is_digest_name(name);
}

uint32_t root_of_path(const char* path) {
  for (uint32_t root_index = 0; root_index < kRootCount; ++root_index) {
    const size_t length = strlen(root_paths[root_index]);
    if (strncmp(path, root_paths[root_index], length) != 0) continue;
    const char* rest = path + length;
    while (*rest == '/')
      ++rest;
    return *rest != '\0' && relative_path_is_confined(rest) ? root_index : kRootCount;
  }
  return kRootCount;
}

bool path_is_listable(const char* path) {
  const uint32_t root_index = root_of_path(path);
  return root_index != kRootCount &&
         relative_path_is_listable(path + strlen(root_paths[root_index]));
}

int check_no_symlink_above(uint32_t root_index, const char* path) {
  std::string above(path);
  for (size_t slash = above.find('/', strlen(root_paths[root_index])); slash != std::string::npos;
       slash = above.find('/', slash + 1)) {
    above[slash] = '\0';
    struct stat status;
    if (lstat(above.c_str(), &status) != 0) return errno == ENOENT ? 0 : errno;
    if (S_ISLNK(status.st_mode)) return ELOOP;
    above[slash] = '/';
  }
  return 0;
}

FILE* open_stream(int dir_fd, const char* path, int flags, mode_t mode, const char* stream_mode) {
  const int fd = openat(dir_fd, path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode);
  if (fd < 0) return nullptr;
  FILE* stream = fdopen(fd, stream_mode);
  if (stream == nullptr) {
    const int error = errno;
    close(fd);
    errno = error;
  }
  return stream;
}
