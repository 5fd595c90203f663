#ifndef CLIENT_PUT_H_
#define CLIENT_PUT_H_

#include <stdint.h>

#include "client/tree_place.h"

// A file under construction, which nobody replicates: beside its destination, and reached through
// the descriptor of that directory, so that a directory that is swapped for a link leads nowhere.
struct Put {
  TreePlace place;  // of the destination; its directory is -1 when there is no put
  int fd;           // of the file, -1 once it is whole
  uint64_t size;
  char name[20];  // "TempUpdate_" and six characters; empty as long as it has none
};

constexpr Put kNoPut = {{-1, "", nullptr}, -1, 0, ""};

// Ends the put and removes the file. True when it has been taken away, by the daemon's rename.
bool discard_put(Put* put);

#endif  // CLIENT_PUT_H_
