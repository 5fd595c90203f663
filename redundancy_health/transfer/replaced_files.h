#ifndef TRANSFER_REPLACED_FILES_H_
#define TRANSFER_REPLACED_FILES_H_

#include <stdint.h>

#include "redundancy_health/catalog/pinned_path.h"

// Keeps files that an exchange deletes or replaces in a persistent tree of this EM (see
// catalog/kept_set.h), up to KEEP_REPLACED_MIB MiB (environment variable). Above that, the oldest
// files are removed. Without the variable, nothing here makes a system call.
//
// Keeping never fails a change. Files that could not be kept are logged once, at the end of the
// exchange. Keeping only adds a link, so after a power failure at any moment either the file is
// still in its tree or the change is complete. The new links are not synced: the last seconds
// before a power failure may be missing.
//
// Everything here runs on sync_thread. `path` is absolute and begins with the root.

// Removes the file `name` in `dir_fd` and keeps it. Returns 0 or the error number of unlinkat(2).
int unlink_keeping(uint32_t root_index, const char* path, int dir_fd, const char* name);

// Keeps a file that is about to be replaced by a rename, if it is the first time in the exchange.
void keep_replaced(uint32_t root_index, const char* path, const PinnedPath& file);

// Keeps a file before the first chunk of an exchange is written to it. Later calls for the same
// file do nothing. `fd` is the open file, -1 if it does not exist yet. With `renewed`, a rename is
// about to replace the file. Otherwise a clone or a copy is kept, unless the file is larger than a
// quarter of the limit or copying takes longer than three seconds.
void keep_before_chunk(uint32_t root_index, const char* path, const PinnedPath& file, int fd,
                       bool renewed);

// The rename has failed: removes the file kept by the last call.
void take_back_kept(const char* path);

// Removes some kept files, oldest first, for a change that finds the disk full. False if nothing is
// left.
bool drop_kept();

// At the end of an exchange: logs the files that could not be kept.
void close_kept();

// Opens the directory and adds up its files. That may take long, so do it before the first
// exchange.
void open_kept();

// Forgets everything, at the end of the thread.
void forget_kept();

#endif  // TRANSFER_REPLACED_FILES_H_
