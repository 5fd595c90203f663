#include "client/tree_place.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/cluster_sync.h"

namespace {

// The last one is a copy, which only the other EM writes.
constexpr const char* kRoots[] = {
    "/mnt/part.persistent/replicated_by_active_em/",
    "/mnt/part.persistent/replicated_by_this_em/",
    "/var/run/replicated_by_active_em/",
    "/mnt/part.persistent/replicated_by_other_em/",
};
constexpr const char* kPeersRoot = kRoots[3];

// Names below a root that are not replicated unchanged.
constexpr char kTempPrefix[] = "TempUpdate_";
constexpr char kDigestPrefix[] = ".$SyncDigest$";
constexpr char kBlanks[] = " \t\n\v\f\r";
constexpr int kMaxDepth = 16;

// Joins the parts into `path`. ENAMETOOLONG if they do not fit.
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

// The root that the path begins with, or null.
const char* root_of(const char* path) {
  for (const char* root : kRoots) {
    if (strncmp(path, root, strlen(root)) == 0) return root;
  }
  return nullptr;
}

// Whether the daemon accepts the path unchanged: it is below a root, and no component is empty, "."
// or "..".
bool is_spelled(const char* path) {
  if (root_of(path) == nullptr) return false;
  const char* name = path;
  while (name != nullptr) {
    ++name;  // after the slash
    const char* end = strchr(name, '/');
    if (is_dots(name, end != nullptr ? static_cast<size_t>(end - name) : strlen(name)))
      return false;
    name = end;
  }
  return true;
}

// Whether a file with this path below a root is replicated under exactly this name.
bool is_replicated(const char* below) {
  if (strchr(kBlanks, below[0]) != nullptr || strstr(below, kDigestPrefix) != nullptr) return false;
  int depth = -1;
  const char* name = below;
  for (const char* next = below; next != nullptr; next = strchr(next, '/')) {
    name = next == below ? below : ++next;
    ++depth;
    if (strncmp(name, kTempPrefix, strlen(kTempPrefix)) == 0) return false;
  }
  // The name of a digest cache file must fit. A name above NAME_MAX fails by itself.
  const size_t length = strlen(name);
  return depth <= kMaxDepth && (length > NAME_MAX || length + strlen(kDigestPrefix) <= NAME_MAX);
}

// Opens the first `length` bytes of `path` as a directory. ELOOP for a symlink.
int open_component(int directory, const char* path, size_t length) {
  char name[NAME_MAX + 1];
  struct stat status;
  if (length >= sizeof name) {
    errno = ENAMETOOLONG;
    return -1;
  }
  memcpy(name, path, length);
  name[length] = '\0';
  const int fd = openat(directory, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0 && errno == ENOTDIR) {
    const bool is_link =
        fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
    errno = is_link ? ELOOP : ENOTDIR;
  }
  return fd;
}

// Opens the directory of `place->spelling`, starting at the root. The path of the root may contain
// symlinks.
int open_directory(const char* root, TreePlace* place) {
  place->directory = open(root, O_PATH | O_DIRECTORY | O_CLOEXEC);
  const char* component = place->spelling + strlen(root);
  while (place->directory >= 0 && component < place->name) {
    const char* end = strchr(component, '/');
    const int above = place->directory;
    place->directory = open_component(above, component, static_cast<size_t>(end - component));
    const int error = errno;
    close(above);
    errno = error;
    component = end + 1;
  }
  return place->directory >= 0 ? 0 : errno;
}

// The place must hold a file or nothing.
int check_kind(const TreePlace& place) {
  struct stat status;
  if (fstatat(place.directory, place.name, &status, AT_SYMLINK_NOFOLLOW) != 0)
    return errno == ENOENT ? 0 : errno;
  return S_ISLNK(status.st_mode) ? ELOOP : S_ISDIR(status.st_mode) ? EISDIR : 0;
}

// The root that is this directory, or null.
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

// Finds the tree of an absolute path by going up from its directory.
int find_tree(const char* path, char spelling[PATH_MAX]) {
  const char* name = strrchr(path, '/') + 1;
  if (is_dots(name, strlen(name))) return EISDIR;
  char parent[PATH_MAX];
  char directory[PATH_MAX];
  strcpy(parent, path);
  parent[name - path] = '\0';
  if (realpath(parent, directory) == nullptr) return errno;

  char below[PATH_MAX];  // the directories passed on the way up, and the name
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

// The daemon checks a source that is outside the trees or does not exist.
int spell_source(const char* path, char spelling[PATH_MAX]) {
  char absolute[PATH_MAX];
  const int error = make_absolute(path, absolute);
  if (error != 0) return error;
  if (!is_spelled(absolute) && find_tree(absolute, spelling) == 0) return 0;
  return join(spelling, absolute, "", "");
}

int find_place(const char* path, TreePlace* place) {
  place->directory = -1;
  if (path == nullptr) return EINVAL;
  int error = spell_destination(path, place->spelling);
  if (error != 0) return error;
  place->name = strrchr(place->spelling, '/') + 1;
  const char* root = root_of(place->spelling);
  if (root == kPeersRoot) return EPERM;
  if (!is_replicated(place->spelling + strlen(root))) return EINVAL;
  error = open_directory(root, place);
  if (error == 0) error = check_kind(*place);
  if (error != 0 && place->directory >= 0) {
    close(place->directory);
    place->directory = -1;
  }
  return error;
}

int cluster_sync_spell(const char* path, char* spelling, size_t size) {
  char whole[PATH_MAX];
  if (path == nullptr) return EINVAL;
  const int error = spell_destination(path, whole);
  if (error != 0) return error;
  if (strlen(whole) >= size) return ENAMETOOLONG;
  strcpy(spelling, whole);
  return 0;
}
