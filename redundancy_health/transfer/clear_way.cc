#include "redundancy_health/transfer/clear_way.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/storage.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/frame/check.h"

namespace {

// Sees to one directory above the file. `*stands` unless nothing is there (any more).
int clear_parent(const char* parent, bool* stands) {
  struct stat status;
  *stands = false;
  if (lstat(parent, &status) != 0) return errno == ENOENT ? 0 : errno;
  if (S_ISLNK(status.st_mode)) return ELOOP;
  if (S_ISREG(status.st_mode)) return unlink(parent) == 0 ? 0 : errno;
  *stands = true;
  return 0;  // what is neither a file nor a directory fails the write
}

int clear_target(const std::string& path, bool in_place) {
  // An empty or "." component names the directory above, which must stay.
  const std::string name = path.substr(path.rfind('/') + 1);
  if (name.empty() || name == ".") return 0;
  struct stat status;
  if (lstat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) return 0;
  std::error_code error;
  if (S_ISDIR(status.st_mode)) {
    std::filesystem::remove_all(path, error);  // follows no links
  } else if (in_place) {
    std::filesystem::remove(path, error);  // a whole file takes its place by itself
  }
  return error.value();
}

// Returns 0 when the directory is new, and on the disk, else an error number.
int make_directory(const char* path) {
  return mkdir(path, 0755) == 0 && storage_sync_name(path) == 0 ? 0 : errno;
}

}  // namespace

int clear_way(uint32_t root_index, const char* path, bool in_place, bool* parent_stands) {
  *parent_stands = false;
  std::string above(path);
  size_t slash = above.find('/', strlen(root_paths[root_index]));
  for (; slash != std::string::npos; slash = above.find('/', slash + 1)) {
    above[slash] = '\0';
    const int error = clear_parent(above.c_str(), parent_stands);
    if (error != 0 || !*parent_stands) return error;
    above[slash] = '/';
  }
  return clear_target(path, in_place);
}

int ensure_parent_directory(const char* path) {
  CHECK_NOT_NULL(path);
  if (path[0] != '/') return ENOENT;
  char* mpath = strdup(path);
  CHECK_NOT_NULL(mpath);
  char* end = strrchr(mpath, '/');
  while (end > mpath && end[-1] == '/')
    --end;
  *end = '\0';
  int error = *mpath == '\0' ? 0 : make_directory(mpath);
  if (error == EEXIST) {
    error = 0;
  } else if (error == ENOENT) {
    error = ensure_parent_directory(mpath);
    if (error == 0) error = make_directory(mpath);
  }
  free(mpath);
  return error;
}
