#ifndef CLIENT_CONNECTION_H_
#define CLIENT_CONNECTION_H_

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include "client/cluster_sync.h"
#include "client/deadline.h"
#include "client/put.h"

// What a connection can be asked for: the type of a request packet, and what stands behind a
// little-endian number in the answer packet.
enum RequestType : uint32_t {
  kUpdateRequest = 0,      // the 128 bytes of a cluster_sync_result
  kDiagnosticRequest = 1,  // nothing
  kStateRequest = 2,       // a cluster_sync_state, or what another version has of it
  kCompareRequest = 3,     // as for an update, and the descriptor of a report
};

struct cluster_sync_connection {
  int fd;
  bool is_asked;          // an answer of `request` is outstanding
  bool is_lost;           // the daemon has hung up: every further call says so
  RequestType request;    // the last one
  char source[PATH_MAX];  // of the last update, empty without one
  Put put;
};

// Sends a request; its answer is outstanding then. `message` are the `count` parts, two at most, of
// what stands behind the type. Returns 0 or an error number, EBUSY when an answer is outstanding
// already or a put was begun.
int send_request(cluster_sync_connection* connection, RequestType type, const iovec* message,
                 size_t count, const Deadline& deadline);

// An answer packet; the payload goes to `room` bytes of the caller's.
struct Answer {
  uint32_t status;  // 0, or the daemon's number for a refusal
  void* payload;
  size_t room;
  size_t size;     // of the whole payload, which may be more than there is room for
  int descriptor;  // that came with it, the caller's to close; -1 without one
};

// Takes the answer to a request of this type. Returns 0 or an error number: EAGAIN when it is not
// there in time, ENOMSG when no such request was sent, ECANCELED for a status other than 0.
int receive_answer(cluster_sync_connection* connection, RequestType type, const Deadline& deadline,
                   Answer* answer);

// Waits until the descriptor can be read. ETIMEDOUT when the time is up.
int wait_readable(int fd, const Deadline& deadline);

#endif  // CLIENT_CONNECTION_H_
