#ifndef CATALOG_PINNED_PATH_H_
#define CATALOG_PINNED_PATH_H_

#include <stdint.h>

#include <memory>

#include "platform/descriptor.h"

// Resolves a path in a tree only once. Service users may write to the trees. If a path were checked
// and then passed to the kernel again, a symlink could have replaced one of its directories in
// between. A pinned path is a name in a directory that is held open. Use it with openat(2) and the
// like; what happens to the path afterwards does not matter.
//
// Everything here runs on sync_thread.

struct PinnedPath {
  std::shared_ptr<const Descriptor> directory;
  // The last component, with any trailing slashes; points into the path. Empty or "." if the path
  // names the directory itself.
  const char* name;

  int dir_fd() const {
    return directory->get();
  }
};

// Pins an absolute path that begins with the root `root_index` and has no "..". The path of the
// root may contain symlinks, but no directory below it may be one. Returns 0 or an error number:
// ELOOP for a symlink above the last component. Keeps the directory open for the next path in it;
// call release_kept_directory at the end of an exchange.
int pin_path(uint32_t root_index, const char* path, PinnedPath* pinned);

// Opens the file at a path, as pin_path takes it, for reading. Returns a descriptor, or -1 with
// errno.
int open_to_read(uint32_t root_index, const char* path);

// As pin_path, with `enter` for every step from a directory into the next.
using EnterDirectory = int (*)(int dir_fd, const char* name);  // a descriptor, or -1 with errno
int pin_path_entering(uint32_t root_index, const char* path, EnterDirectory enter,
                      PinnedPath* pinned);

// Pins any path, following symlinks as rename(2) does. Returns 0 or an error number.
int pin_outside_path(const char* path, PinnedPath* pinned);

// Closes the directory that pin_path keeps open.
void release_kept_directory();

// Opens the directory `name` without following a symlink. Returns a descriptor, or -1 with errno:
// ELOOP for a symlink.
int open_directory(int dir_fd, const char* name);

#endif  // CATALOG_PINNED_PATH_H_
