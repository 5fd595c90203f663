#ifndef CLIENT_SPELLING_H_
#define CLIENT_SPELLING_H_

#include <limits.h>

// How the daemon spells paths. Each writes the absolute path, at most PATH_MAX bytes with its NUL,
// and returns 0 or an error number.

// A path in a replicated tree, whatever way leads there. EXDEV when it lies in none.
int spell_destination(const char* path, char spelling[PATH_MAX]);

// A path that may also lie elsewhere.
int spell_source(const char* path, char spelling[PATH_MAX]);

#endif  // CLIENT_SPELLING_H_
