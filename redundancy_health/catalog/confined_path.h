#ifndef CATALOG_CONFINED_PATH_H_
#define CATALOG_CONFINED_PATH_H_

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

// Keeps what arrives from the peer or a local caller inside the replicated roots, as far as the
// text of a path tells; pinned_path.h sees to the links that are planted in the trees.

// A path below a root, taken apart.
struct TreePath {
  uint32_t root_index;
  const char* relative_path;  // points into the path it was made from
};

// Takes an absolute path apart. False when it lies below no root, is a root itself or has a ".."
// component.
bool split_tree_path(const char* path, TreePath* place);

// The one check of an absolute path that somebody else has chosen. Returns 0 when a file there is
// replicated under just that name; EPERM when the path lies below no root; EINVAL when no
// scan lists the name, or a blank at its beginning would be lost on the way.
int check_tree_path(const char* path, TreePath* place);

// True for a relative path that does not begin with "/" and has no ".." component. An empty path
// passes.
bool relative_path_is_confined(const char* relative_path);

// True for a relative path that a scan lists: a file of any other name would fail every later scan
// (too deep, too long for a digest cache file beside it), be passed over (a temporary, a digest
// cache file), or make an invalid listing line (the reader of a line swallows the blanks at its
// start). An empty path passes.
bool relative_path_is_listable(const char* relative_path);

// True for the error of an unlink that found no file to delete: nothing of that name, or a
// directory, or a path that leads through a file.
bool file_is_gone(int error);

// fopen(3) that neither follows a symbolic link in the last component nor waits for the other end
// of a FIFO. `dir_fd`, `flags` and `mode` as for openat(2). Null with errno on failure.
FILE* open_stream(int dir_fd, const char* path, int flags, mode_t mode, const char* stream_mode);

#endif  // CATALOG_CONFINED_PATH_H_
