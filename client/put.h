#ifndef CLIENT_PUT_H_
#define CLIENT_PUT_H_

#include <stdint.h>

#include "client/tree_place.h"

// A temporary file in the directory of its destination; it is never replicated. It is reached
// through the descriptor of that directory, so replacing the directory with a symlink has no
// effect.
struct Put {
  TreePlace place;  // of the destination; its directory is -1 if there is no put
  int fd;           // of the file; -1 once it is complete
  uint64_t size;
  char name[20];  // "TempUpdate_" and six characters; empty while the file has no name
};

constexpr Put kNoPut = {{-1, "", nullptr}, -1, 0, ""};

// Ends the put and removes the file. Returns true if the daemon has already renamed it.
bool discard_put(Put* put);

#endif  // CLIENT_PUT_H_
