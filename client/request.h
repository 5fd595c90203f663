#ifndef CLIENT_REQUEST_H_
#define CLIENT_REQUEST_H_

#include "client/connection.h"

// Sends an update request with paths as the daemon spells them; null for none.
int send_paths(cluster_sync_connection* connection, const char* source, const char* destination,
               const Deadline& deadline);

// Waits for the answer. When the time is up withdraws the request and returns what became of it.
int receive_or_withdraw(cluster_sync_connection* connection, const Deadline& deadline,
                        cluster_sync_result* result);

#endif  // CLIENT_REQUEST_H_
