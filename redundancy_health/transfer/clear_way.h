#ifndef TRANSFER_CLEAR_WAY_H_
#define TRANSFER_CLEAR_WAY_H_

#include <stdint.h>

#include "redundancy_health/catalog/pinned_path.h"

// Makes room for a received file. The sender decides what its tree holds, and updates arrive before
// deletions: a regular file that stands where the sender has a directory goes, and so does what
// stands where the sender has a file. Each returns 0 or the error of what failed.

// Pins a path that begins with the root `root_index` and has no ".." behind it. Missing directories
// above it are made. ELOOP when a symbolic link stands there: nothing is written through it.
int clear_way(uint32_t root_index, const char* path, PinnedPath* file);

// Removes what is no regular file: a directory with all in it, a link, a FIFO, a socket, a device.
// Only the first needs it when the file is replaced as a whole.
int clear_target(const PinnedPath& file);

// Makes the missing directories above a path, mode 0755, and pins it.
int ensure_parent_directory(uint32_t root_index, const char* path, PinnedPath* file);

#endif  // TRANSFER_CLEAR_WAY_H_
