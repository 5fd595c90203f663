#ifndef CLIENT_REQUEST_H_
#define CLIENT_REQUEST_H_

#include "client/cluster_sync.h"

// Connects, sends an update request and waits for its answer, all within the time limit. Paths and
// `result` as for cluster_sync_send_update and cluster_sync_update.
int request_update(const char* socket, const char* source, const char* destination, int timeout_ms,
                   cluster_sync_result* result);

#endif  // CLIENT_REQUEST_H_
