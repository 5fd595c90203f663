#include "redundancy_health/catalog/pinned_path.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include "redundancy_health/catalog/roots.h"

namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC;

// The directory of the last pinned path. In an exchange, most files are in the same directory as
// the previous one.
struct KeptDirectory {
  std::string path;
  std::shared_ptr<const Descriptor> directory;
};
KeptDirectory g_kept_directory;

// The start of the last component of a path. Trailing slashes belong to it.
const char* last_component(const char* path) {
  const char* end = path + strlen(path);
  while (end > path && end[-1] == '/')
    --end;
  while (end > path && end[-1] != '/')
    --end;
  return end;
}

// Splits a path below a root: `above` gets the directories between the root and the last component.
// Returns the last component.
const char* split_below_root(uint32_t root_index, const char* path, std::string* above) {
  const char* below_root = path + strlen(root_paths[root_index]);
  below_root += strspn(below_root, "/");
  const char* name = last_component(below_root);
  above->assign(below_root, name);
  return name;
}

// Resolves all steps in one call. Fails with ENOSYS on kernels before 5.6.
int open_beneath(int root_fd, const char* path) {
  struct open_how how = {};
  how.flags = kDirectoryFlags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  return static_cast<int>(syscall(SYS_openat2, root_fd, path, &how, sizeof(how)));
}

// Opens the directory `above` step by step, starting at `fd`, which it closes. Returns a
// descriptor, or -1 with errno.
// cppcheck-suppress passedByValue  ; strtok_r(3) cuts it up
int walk_down(int fd, std::string above, EnterDirectory enter) {
  char* rest = nullptr;
  for (char* name = strtok_r(above.data(), "/", &rest); name != nullptr && fd >= 0;
       name = strtok_r(nullptr, "/", &rest)) {
    if (strcmp(name, ".") == 0) continue;
    const Descriptor parent(fd);
    fd = enter(fd, name);
  }
  return fd;
}

int open_root(uint32_t root_index) {
  return open(root_paths[root_index], kDirectoryFlags);
}

// Opens the directory `above` below a root. Returns a descriptor, or -1 with errno.
int open_below_root(uint32_t root_index, const std::string& above) {
  const int root_fd = open_root(root_index);
  if (root_fd < 0 || above.empty()) return root_fd;
  const int fd = open_beneath(root_fd, above.c_str());
  // A seccomp filter that does not know openat2 makes it fail with EPERM.
  if (fd < 0 && (errno == ENOSYS || errno == EPERM))
    return walk_down(root_fd, above, open_directory);
  const Descriptor root(root_fd);
  return fd;
}

int keep(int fd, std::string path, PinnedPath* pinned) {
  if (fd < 0) return errno;
  pinned->directory = std::make_shared<const Descriptor>(fd);
  g_kept_directory = {std::move(path), pinned->directory};
  return 0;
}

bool kept_directory_is(const std::string& path) {
  return g_kept_directory.directory != nullptr && g_kept_directory.path == path;
}

// A removed directory takes no new file.
bool kept_directory_is_removed() {
  struct stat status;
  return fstat(g_kept_directory.directory->get(), &status) != 0 || status.st_nlink == 0;
}

}  // namespace

int open_directory(int dir_fd, const char* name) {
  const int fd = openat(dir_fd, name, kDirectoryFlags | O_NOFOLLOW);
  if (fd >= 0 || errno != ENOTDIR) return fd;
  struct stat status;
  const bool is_link =
      fstatat(dir_fd, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
  errno = is_link ? ELOOP : ENOTDIR;
  return -1;
}

int pin_path(uint32_t root_index, const char* path, PinnedPath* pinned) {
  std::string above;
  pinned->name = split_below_root(root_index, path, &above);
  std::string directory(path, pinned->name);
  if (kept_directory_is(directory) && !kept_directory_is_removed()) {
    pinned->directory = g_kept_directory.directory;
    return 0;
  }
  return keep(open_below_root(root_index, above), std::move(directory), pinned);
}

int open_to_read(uint32_t root_index, const char* path) {
  constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const char* name = last_component(path);
  if (kept_directory_is(std::string(path, name))) {
    const int fd = openat(g_kept_directory.directory->get(), name, flags);
    if (fd >= 0 || errno != ENOENT) return fd;  // ENOENT: the directory may have been removed
  }
  PinnedPath file;
  const int error = pin_path(root_index, path, &file);
  if (error != 0) return errno = error, -1;
  return openat(file.dir_fd(), file.name, flags);
}

int pin_path_entering(uint32_t root_index, const char* path, EnterDirectory enter,
                      PinnedPath* pinned) {
  std::string above;
  pinned->name = split_below_root(root_index, path, &above);
  const int root_fd = open_root(root_index);
  const int fd = root_fd < 0 ? -1 : walk_down(root_fd, above, enter);
  return keep(fd, std::string(path, pinned->name), pinned);
}

int pin_outside_path(const char* path, PinnedPath* pinned) {
  pinned->name = last_component(path);
  const std::string above(path, pinned->name);
  const int fd = open(above.empty() ? "." : above.c_str(), kDirectoryFlags);
  if (fd < 0) return errno;
  pinned->directory = std::make_shared<const Descriptor>(fd);
  return 0;
}

void release_kept_directory() {
  g_kept_directory = {};
}
