#ifndef TRANSFER_CLEAR_WAY_H_
#define TRANSFER_CLEAR_WAY_H_

#include <stdint.h>

#include "redundancy_health/catalog/pinned_path.h"

// Makes way for a received file. The sender decides what its tree contains, and updates arrive
// before deletions. So this removes a regular file where the sender has a directory, and anything
// else where the sender has a file; both may be kept (replaced_files.h). Each function returns 0 or
// an error number.

// Pins a path that begins with the root `root_index` and has no "..". Creates missing directories
// above it. ELOOP if one of them is a symlink: nothing is written through it.
int clear_way(uint32_t root_index, const char* path, PinnedPath* file);

// Removes a target that is not a regular file: a directory with its contents, a symlink, a FIFO, a
// socket, a device. If the file is replaced as a whole, only a directory must be removed.
int clear_target(uint32_t root_index, const char* path, const PinnedPath& file);

// Creates the missing directories above a path, mode 0755, and pins it.
int ensure_parent_directory(uint32_t root_index, const char* path, PinnedPath* file);

#endif  // TRANSFER_CLEAR_WAY_H_
