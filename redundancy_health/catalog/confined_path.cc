#include "redundancy_health/catalog/confined_path.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "redundancy_health/catalog/roots.h"

namespace {

// The blanks that the parser of a listing line skips before a path.
constexpr char kBlanks[] = " \t\n\v\f\r";

bool is_dots(const char* name, size_t length) {
  return length == 2 && name[0] == '.' && name[1] == '.';
}

bool is_temporary(const char* name, size_t length) {
  constexpr size_t prefix_length = sizeof(kTempPrefix) - 1;
  return length >= prefix_length && strncmp(name, kTempPrefix, prefix_length) == 0;
}

// Whether the name of the digest cache file fits into NAME_MAX. A name above NAME_MAX fails by
// itself.
bool leaves_room_for_prefix(size_t name_length) {
  constexpr size_t prefix_length = sizeof(kDigestPrefix) - 1;
  return name_length > NAME_MAX || name_length + prefix_length <= NAME_MAX;
}

}  // namespace

bool split_tree_path(const char* path, TreePath* place) {
  place->root_index = root_of_path(path);
  if (place->root_index == kRootCount) return false;
  place->relative_path = path + strlen(root_paths[place->root_index]);
  place->relative_path += strspn(place->relative_path, "/");
  return *place->relative_path != '\0' && relative_path_is_confined(place->relative_path);
}

int check_tree_path(const char* path, TreePath* place) {
  if (!split_tree_path(path, place)) return EPERM;
  const bool keeps_its_name = strspn(place->relative_path, kBlanks) == 0;
  return keeps_its_name && relative_path_is_listable(place->relative_path) ? 0 : EINVAL;
}

bool relative_path_is_confined(const char* relative_path) {
  if (relative_path[0] == '/') return false;
  for (const char* name = relative_path; name != nullptr;) {
    const char* end = strchrnul(name, '/');
    if (is_dots(name, static_cast<size_t>(end - name))) return false;
    name = *end == '/' ? end + 1 : nullptr;
  }
  return true;
}

bool relative_path_is_listable(const char* relative_path) {
  const char* as_read = relative_path + strspn(relative_path, kBlanks);
  if (as_read != relative_path && (*as_read == '\0' || !relative_path_is_confined(as_read))) {
    return false;
  }
  int depth = 0;
  const char* name = relative_path;
  const char* end = strchrnul(name, '/');
  while (*end == '/') {
    if (is_temporary(name, static_cast<size_t>(end - name))) return false;
    name = end + 1;
    end = strchrnul(name, '/');
    if (end != name) ++depth;
  }
  const auto length = static_cast<size_t>(end - name);
  return depth <= kMaxScanDepth && leaves_room_for_prefix(length) && !is_digest_name(name) &&
         !is_temporary(name, length);
}

bool file_is_gone(int error) {
  return error == ENOENT || error == EISDIR || error == ENOTDIR;
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
