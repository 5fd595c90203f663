#ifndef TRANSFER_CLEAR_WAY_H_
#define TRANSFER_CLEAR_WAY_H_

#include <stdint.h>

// Makes room for a received file. The sender decides what its tree holds, and updates arrive before
// deletions: a regular file that stands where the sender has a directory goes, and so does a
// directory, with all in it, that stands where the sender has a file. So does a link, a FIFO, a
// socket or a device there when the file is written `in_place` and not replaced as a whole. Returns
// 0, ELOOP when a symbolic link stands above (nothing is written through it), or the error of what
// failed. `*parent_stands` when a directory below the root holds the file and need not be made.
// `path` begins with the root `root_index` and has no ".." behind it.
int clear_way(uint32_t root_index, const char* path, bool in_place, bool* parent_stands);

// Creates the missing directories above an absolute path, mode 0755. Returns 0 or an error number.
int ensure_parent_directory(const char* path);

#endif  // TRANSFER_CLEAR_WAY_H_
