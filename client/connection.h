#ifndef CLIENT_CONNECTION_H_
#define CLIENT_CONNECTION_H_

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include "client/cluster_sync.h"
#include "client/deadline.h"
#include "client/put.h"

// The type of a request packet. The comments say what follows the little-endian status in the
// answer packet.
enum RequestType : uint32_t {
  kUpdateRequest = 0,      // the 128 bytes of a cluster_sync_result
  kDiagnosticRequest = 1,  // nothing
  kStateRequest = 2,       // a cluster_sync_state, longer or shorter in other versions
  kCompareRequest = 3,     // a cluster_sync_result, and the descriptor of a report
};

struct cluster_sync_connection {
  int fd;
  bool is_asked;          // the answer to `request` is outstanding
  bool is_lost;           // the daemon has closed the connection; every further call fails
  RequestType request;    // the last one
  char source[PATH_MAX];  // source of the last update; empty if there is none
  Put put;
};

// Sends a request; its answer is then outstanding. `message` are `count` parts, two at most, that
// follow the type. Returns 0 or an error number: EBUSY if an answer is outstanding or a put was
// begun.
int send_request(cluster_sync_connection* connection, RequestType type, const iovec* message,
                 size_t count, const Deadline& deadline);

// An answer packet. The payload goes to a buffer of `room` bytes.
struct Answer {
  uint32_t status;  // 0, or the number with which the daemon refused the request
  void* payload;
  size_t room;
  size_t size;     // of the whole payload; may exceed `room`
  int descriptor;  // received with the answer, or -1; the caller closes it
};

// Takes the answer to a request of this type. Returns 0 or an error number: EAGAIN if it has not
// arrived in time, ENOMSG if no such request was sent, ECANCELED for a status other than 0.
int receive_answer(cluster_sync_connection* connection, RequestType type, const Deadline& deadline,
                   Answer* answer);

// Waits until the descriptor is readable. ETIMEDOUT if the time limit expires.
int wait_readable(int fd, const Deadline& deadline);

#endif  // CLIENT_CONNECTION_H_
