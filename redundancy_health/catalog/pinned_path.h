#ifndef CATALOG_PINNED_PATH_H_
#define CATALOG_PINNED_PATH_H_

#include <stdint.h>

#include <memory>

#include "platform/descriptor.h"

// A path in a tree is resolved once. Service users may write to the trees: a path that is checked
// and then handed to the kernel again can lead through a link that took a directory's place in
// between. A pinned path is a name in a directory that is held open; openat(2) and its relatives
// work on the name in that directory, wherever the path leads by then.
//
// Everything here runs on sync_thread.

struct PinnedPath {
  std::shared_ptr<const Descriptor> directory;
  // The last component, with the slashes behind it; points into the path. Empty or "." for a path
  // that names the directory itself.
  const char* name;

  int dir_fd() const {
    return directory->get();
  }
};

// Pins an absolute path that begins with the root `root_index` and has no "..". The root itself may
// be reached through links, nothing below it: returns 0 or an error number, ELOOP for a link above
// the last component. The directory stays open for the next path in it until
// release_kept_directory, which must follow at the end of an exchange.
int pin_path(uint32_t root_index, const char* path, PinnedPath* pinned);

// The same with `enter` for every step from one directory into the next.
using EnterDirectory = int (*)(int dir_fd, const char* name);  // a descriptor, or -1 with errno
int pin_path_entering(uint32_t root_index, const char* path, EnterDirectory enter,
                      PinnedPath* pinned);

// Pins any path, following links on the way as rename(2) does. Returns 0 or an error number.
int pin_outside_path(const char* path, PinnedPath* pinned);

// Closes the directory that pin_path has kept.
void release_kept_directory();

// Opens the directory `name` without following a link. Returns a descriptor, or -1 with errno,
// ELOOP for a link.
int open_directory(int dir_fd, const char* name);

#endif  // CATALOG_PINNED_PATH_H_
