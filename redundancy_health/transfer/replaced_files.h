#ifndef TRANSFER_REPLACED_FILES_H_
#define TRANSFER_REPLACED_FILES_H_

#include <stdint.h>

#include "redundancy_health/catalog/pinned_path.h"

// Keeps what an exchange deletes or replaces in a persistent tree of this EM (catalog/kept_set.h
// says where) when KEEP_REPLACED_MIB in the environment says how many MiB of it. What is above that
// goes, oldest first. Without the variable nothing here makes a system call.
//
// Keeping never fails a change; what could not be kept is told once, at the end of the exchange. It
// adds a link and takes nothing away, so that a loss of power at any moment leaves the file in its
// tree or the change complete. The new links are not synced: the last seconds before a loss of
// power may not have been kept.
//
// Everything here runs on sync_thread. `path` is absolute and begins with the root.

// Removes the file that is `name` in `dir_fd`, and keeps it. Returns 0 or the error number of
// unlinkat(2).
int unlink_keeping(uint32_t root_index, const char* path, int dir_fd, const char* name);

// Keeps a file that is about to be replaced by a rename.
void keep_replaced(uint32_t root_index, const char* path, const PinnedPath& file);

// Keeps a file before the first chunk of an exchange is written into it; later calls for the same
// file do nothing. `fd` is the open file, -1 when there is none yet. With `renewed` another file is
// about to take its place by a rename; else a clone or a copy is kept, unless it is above a quarter
// of the limit or takes longer than three seconds.
void keep_before_chunk(uint32_t root_index, const char* path, const PinnedPath& file, int fd,
                       bool renewed);

// The rename has failed: what the last call has kept is no replaced file.
void take_back_kept(const char* path);

// For a change that finds no space on the disk: removes some of what is kept, oldest first. False
// when nothing is left.
bool drop_kept();

// The exchange is over: tells what could not be kept.
void close_kept();

// Opens the directory and adds up what it holds: this takes its time, so it is done before the
// first exchange.
void open_kept();

// Forgets everything, at the end of the thread.
void forget_kept();

#endif  // TRANSFER_REPLACED_FILES_H_
