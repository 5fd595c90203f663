#ifndef CLIENT_TREE_PLACE_H_
#define CLIENT_TREE_PLACE_H_

#include <limits.h>

// How the daemon spells paths. Each writes the absolute path, at most PATH_MAX bytes with its NUL,
// and returns 0 or an error number.

// A path in a replicated tree, whatever way leads there. EXDEV when it lies in none.
int spell_destination(const char* path, char spelling[PATH_MAX]);

// A path that may also lie elsewhere.
int spell_source(const char* path, char spelling[PATH_MAX]);

// Where a file in a tree is, or will be.
struct TreePlace {
  int directory;            // the one that holds it, an O_PATH descriptor
  char spelling[PATH_MAX];  // the daemon's
  const char* name;         // the last component of `spelling`
};

// Finds the place of a file that a local program may publish. The directory is reached from the
// root of its tree without following a link. Returns 0, or what is wrong: EXDEV, EPERM, EINVAL,
// EISDIR and ELOOP as in cluster_sync.h, or the error of a system call; `place->directory` is -1
// then.
int find_place(const char* path, TreePlace* place);

#endif  // CLIENT_TREE_PLACE_H_
