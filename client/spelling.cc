#include "client/spelling.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* kRoots[] = {
    "/mnt/part.persistent/replicated_by_active_em/",
    "/mnt/part.persistent/replicated_by_this_em/",
    "/mnt/part.persistent/replicated_by_other_em/",
    "/var/run/replicated_by_active_em/",
};

// Joins the parts into `path`; ENAMETOOLONG when they do not fit.
int join(char path[PATH_MAX], const char* first, const char* second, const char* third) {
  const int length = snprintf(path, PATH_MAX, "%s%s%s", first, second, third);
  return length < PATH_MAX ? 0 : ENAMETOOLONG;
}

int make_absolute(const char* path, char absolute[PATH_MAX]) {
  if (path[0] == '\0') return EINVAL;
  if (path[0] == '/') return join(absolute, path, "", "");
  char current[PATH_MAX];
  if (getcwd(current, sizeof current) == nullptr) return errno;
  return join(absolute, current, "/", path);
}

bool is_dots(const char* name, size_t length) {
  return length <= 2 && strncmp(name, "..", length) == 0;
}

// Whether the daemon can take the path as it stands: below a root, no component empty or of dots.
bool is_spelled(const char* path) {
  for (const char* root : kRoots) {
    if (strncmp(path, root, strlen(root)) != 0) continue;
    const char* name = path;
    while (name != nullptr) {
      ++name;  // behind the slash
      const char* end = strchr(name, '/');
      if (is_dots(name, end != nullptr ? static_cast<size_t>(end - name) : strlen(name)))
        return false;
      name = end;
    }
    return true;
  }
  return false;
}

// The root that the directory is, or null.
const char* root_at(const char* directory) {
  struct stat status;
  if (stat(directory, &status) != 0) return nullptr;
  for (const char* root : kRoots) {
    struct stat other;
    if (stat(root, &other) == 0 && other.st_dev == status.st_dev && other.st_ino == status.st_ino)
      return root;
  }
  return nullptr;
}

// Looks for the root from the directory of `path`, which is absolute, upwards.
int find_tree(const char* path, char spelling[PATH_MAX]) {
  const char* name = strrchr(path, '/') + 1;
  if (is_dots(name, strlen(name))) return EISDIR;
  char parent[PATH_MAX];
  char directory[PATH_MAX];
  strcpy(parent, path);
  parent[name - path] = '\0';
  if (realpath(parent, directory) == nullptr) return errno;

  char below[PATH_MAX];  // what is cut off the directory on the way up, and the name
  int error = join(below, name, "", "");
  while (error == 0) {
    if (const char* root = root_at(directory)) return join(spelling, root, below, "");
    char* last = strrchr(directory, '/');
    if (last == nullptr || last[1] == '\0') return EXDEV;
    char longer[PATH_MAX];
    error = join(longer, last + 1, "/", below);
    strcpy(below, longer);
    last[last == directory ? 1 : 0] = '\0';
  }
  return error;
}

}  // namespace

int spell_destination(const char* path, char spelling[PATH_MAX]) {
  char absolute[PATH_MAX];
  const int error = make_absolute(path, absolute);
  if (error != 0) return error;
  return is_spelled(absolute) ? join(spelling, absolute, "", "") : find_tree(absolute, spelling);
}

// A source outside the trees, or one that is not there, is the daemon's to judge.
int spell_source(const char* path, char spelling[PATH_MAX]) {
  char absolute[PATH_MAX];
  const int error = make_absolute(path, absolute);
  if (error != 0) return error;
  if (!is_spelled(absolute) && find_tree(absolute, spelling) == 0) return 0;
  return join(spelling, absolute, "", "");
}
