#include "redundancy_health/transfer/clear_way.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/catalog/unsynced.h"
#include "redundancy_health/transfer/replaced_files.h"

namespace {

mode_t type_of(int dir_fd, const char* name) {
  struct stat status;
  return fstatat(dir_fd, name, &status, AT_SYMLINK_NOFOLLOW) == 0 ? status.st_mode & S_IFMT : 0;
}

// Opens a directory above a file. If it is missing or a regular file, creates it and syncs its
// name. Returns a descriptor, or -1 with errno.
int enter_directory(int dir_fd, const char* name) {
  const int fd = open_directory(dir_fd, name);
  if (fd >= 0 || (errno != ENOENT && errno != ENOTDIR)) return fd;
  if (errno == ENOTDIR) {
    if (type_of(dir_fd, name) != S_IFREG) return errno = ENOTDIR, -1;
    if (unlinkat(dir_fd, name, 0) != 0) return -1;
  }
  if (mkdirat(dir_fd, name, 0755) == 0 ? sync_received_name(dir_fd) != 0 : errno != EEXIST)
    return -1;
  return open_directory(dir_fd, name);
}

// Keeps a regular file where the sender has a directory: the deepest component above the path that
// can be pinned.
void keep_file_above(uint32_t root_index, const char* path) {
  std::string above(path);
  PinnedPath file;
  for (size_t slash = above.rfind('/'); slash >= strlen(root_paths[root_index]);
       slash = above.rfind('/')) {
    above.resize(slash);
    if (pin_path(root_index, above.c_str(), &file) == 0)
      return keep_replaced(root_index, above.c_str(), file);
  }
}

int remove_tree(uint32_t root_index, const std::string& path, int dir_fd, const char* name);

// Removes the contents of a directory. Returns 0 or an error number.
int empty_directory(uint32_t root_index, const std::string& path, DIR* dir) {
  errno = 0;
  while (const struct dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    const int error =
        remove_tree(root_index, path + "/" + entry->d_name, dirfd(dir), entry->d_name);
    if (error != 0) return error;
    errno = 0;
  }
  return errno;
}

// Removes a file, or a directory with its contents, without following symlinks. Returns 0 or an
// error number.
int remove_tree(uint32_t root_index, const std::string& path, int dir_fd, const char* name) {
  const int unlink_error = unlink_keeping(root_index, path.c_str(), dir_fd, name);
  if (unlink_error != EISDIR) return unlink_error;
  Descriptor fd(open_directory(dir_fd, name));
  DIR* dir = fd.is_open() ? fdopendir(fd.get()) : nullptr;
  if (dir == nullptr) return errno;
  fd.release();
  const int error = empty_directory(root_index, path, dir);
  closedir(dir);
  if (error != 0) return error;
  return unlinkat(dir_fd, name, AT_REMOVEDIR) == 0 ? 0 : errno;
}

}  // namespace

int clear_way(uint32_t root_index, const char* path, PinnedPath* file) {
  const int error = pin_path(root_index, path, file);
  if (error != ENOENT && error != ENOTDIR) return error;
  if (error == ENOTDIR) keep_file_above(root_index, path);
  return ensure_parent_directory(root_index, path, file);
}

int clear_target(uint32_t root_index, const char* path, const PinnedPath& file) {
  // An empty or "." component names the directory above, which must stay.
  if (*file.name == '\0' || strcmp(file.name, ".") == 0) return 0;
  const mode_t type = type_of(file.dir_fd(), file.name);
  return type == 0 || type == S_IFREG ? 0 : remove_tree(root_index, path, file.dir_fd(), file.name);
}

int ensure_parent_directory(uint32_t root_index, const char* path, PinnedPath* file) {
  std::error_code shows_again;
  std::filesystem::create_directories(root_paths[root_index], shows_again);
  return pin_path_entering(root_index, path, enter_directory, file);
}
