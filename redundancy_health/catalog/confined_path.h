#ifndef CATALOG_CONFINED_PATH_H_
#define CATALOG_CONFINED_PATH_H_

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

// Keeps what arrives from the peer or a local caller inside the replicated roots. Paths are
// checked as text and against symbolic links planted in the trees; the roots themselves may be
// reached through links.

// True for a relative path that does not begin with "/" and has no ".." component. An empty path
// passes.
bool relative_path_is_confined(const char* relative_path);

// True for a relative path that a scan can list: a file of that name would otherwise fail every
// later scan (too deep, too long for a digest cache file beside it), be taken for a digest cache
// file, or make an invalid listing line (the reader of a line swallows the blanks at its start).
// An empty path passes.
bool relative_path_is_listable(const char* relative_path);

// Finds the root below which an absolute path lies, as text: its index, or kRootCount when it lies
// below none, is a root itself or has a ".." component.
uint32_t root_of_path(const char* path);

// True for an absolute path below a root whose part behind the root a scan can list.
bool path_is_listable(const char* path);

// Returns 0 when no existing directory between the root and the last component of `path` is a
// symbolic link, else ELOOP (or the error of lstat). `path` begins with the root `root_index`. A
// missing directory ends the walk without an error.
int check_no_symlink_above(uint32_t root_index, const char* path);

// fopen(3) that neither follows a symbolic link in the last component nor waits for the other end
// of a FIFO. `dir_fd`, `flags` and `mode` as for openat(2). Null with errno on failure.
FILE* open_stream(int dir_fd, const char* path, int flags, mode_t mode, const char* stream_mode);

#endif  // CATALOG_CONFINED_PATH_H_
