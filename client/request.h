#ifndef CLIENT_REQUEST_H_
#define CLIENT_REQUEST_H_

#include "client/connection.h"

// Sends an update request with paths as the daemon spells them; null for none.
int send_paths(cluster_sync_connection* connection, const char* source, const char* destination,
               const Deadline& deadline);

// Waits for the answer. When the time is up withdraws the request and returns what became of it.
int receive_or_withdraw(cluster_sync_connection* connection, const Deadline& deadline,
                        cluster_sync_result* result);

// Takes the answer to a request of this type: its record into `*result`, which may be null, its
// number into `*status`, which may be, too, and a comparison's descriptor, or -1, into
// `*descriptor`, also after an error; the caller closes it. Returns what cluster_sync_receive does.
int receive_record(cluster_sync_connection* connection, RequestType type, const Deadline& deadline,
                   uint32_t* status, cluster_sync_result* result, int* descriptor);

#endif  // CLIENT_REQUEST_H_
