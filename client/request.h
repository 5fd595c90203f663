#ifndef CLIENT_REQUEST_H_
#define CLIENT_REQUEST_H_

#include "client/connection.h"

// Sends an update request. The paths are in the daemon's spelling, empty for none.
int send_paths(cluster_sync_connection* connection, const char* source, const char* destination,
               const Deadline& deadline);

// Waits for the answer. If the time limit expires, withdraws the request and returns the result of
// that.
int receive_or_withdraw(cluster_sync_connection* connection, const Deadline& deadline,
                        cluster_sync_result* result);

// Takes the answer to a request of this type. Stores its record in `*result` and its number in
// `*status`; both may be null. Stores the descriptor of a comparison, or -1, in `*descriptor`, even
// after an error; the caller closes it. Returns the same as cluster_sync_receive.
int receive_record(cluster_sync_connection* connection, RequestType type, const Deadline& deadline,
                   uint32_t* status, cluster_sync_result* result, int* descriptor);

#endif  // CLIENT_REQUEST_H_
