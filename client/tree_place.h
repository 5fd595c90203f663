#ifndef CLIENT_TREE_PLACE_H_
#define CLIENT_TREE_PLACE_H_

#include <limits.h>

// Convert paths to the daemon's spelling. Each writes the absolute path, at most PATH_MAX bytes
// including the NUL, and returns 0 or an error number.

// A path in a replicated tree, however it leads there. EXDEV if it is in none.
int spell_destination(const char* path, char spelling[PATH_MAX]);

// A path that may also be outside the trees.
int spell_source(const char* path, char spelling[PATH_MAX]);

// The place of a file in a tree.
struct TreePlace {
  int directory;            // its directory, an O_PATH descriptor
  char spelling[PATH_MAX];  // the daemon's spelling
  const char* name;         // the last component of `spelling`
};

// Finds the place of a file that a local program may publish. The directory is resolved from the
// root of its tree without following symlinks. Returns 0, or an error number: EXDEV, EPERM, EINVAL,
// EISDIR and ELOOP as in cluster_sync.h, or that of a system call. After an error
// `place->directory` is -1.
int find_place(const char* path, TreePlace* place);

#endif  // CLIENT_TREE_PLACE_H_
