#ifndef EXCHANGE_LOCAL_REQUEST_H_
#define EXCHANGE_LOCAL_REQUEST_H_

#include "redundancy_health/frame/sync_context.h"

// Carries a local caller's request out on this EM's trees. Everything here runs on sync_thread.

// Applies the request of rpc_msg. True when an exchange is to take it to the peer; else the request
// was completed with an error, or had been answered before. In ST_UNLOCKED.
bool apply_local_request(SyncContext* ctx);

// Makes a request that has changed the local trees pending, unless the state machine has done so:
// its caller gets the outcome of the exchange.
void mark_applied(SyncContext* ctx);

#endif  // EXCHANGE_LOCAL_REQUEST_H_
