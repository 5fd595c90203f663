#ifndef CATALOG_CONFINED_PATH_H_
#define CATALOG_CONFINED_PATH_H_

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

// Checks the text of paths from the peer and from local callers, so that they stay inside the
// replicated roots. pinned_path.h protects against symlinks in the trees.

// A path below a root, split at the root.
struct TreePath {
  uint32_t root_index;
  const char* relative_path;  // points into the original path
};

// Splits an absolute path. Returns false if it is not below a root, is a root itself or has a ".."
// component.
bool split_tree_path(const char* path, TreePath* place);

// Checks an absolute path from outside. Returns 0 if a file there is replicated under exactly that
// name; EPERM if the path is not below a root; EINVAL if no scan lists the name, or if it begins
// with a blank, which would be lost on the wire.
int check_tree_path(const char* path, TreePath* place);

// True for a relative path that does not begin with "/" and has no ".." component. An empty path
// passes.
bool relative_path_is_confined(const char* relative_path);

// True for a relative path that a scan lists. A file of any other name would fail every later scan
// (too deep, or too long for its digest cache file), be skipped (a temporary file, a digest cache
// file), or make an invalid listing line (leading blanks are lost). An empty path passes.
bool relative_path_is_listable(const char* relative_path);

// True for an error of unlink that means that there is no file to delete: nothing of that name, a
// directory, or a path that leads through a file.
bool file_is_gone(int error);

// fopen(3) that does not follow a symlink in the last component and does not wait for the other end
// of a FIFO. `dir_fd`, `flags` and `mode` as for openat(2). Null with errno on failure.
FILE* open_stream(int dir_fd, const char* path, int flags, mode_t mode, const char* stream_mode);

#endif  // CATALOG_CONFINED_PATH_H_
