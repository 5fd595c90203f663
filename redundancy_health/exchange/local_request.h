#ifndef EXCHANGE_LOCAL_REQUEST_H_
#define EXCHANGE_LOCAL_REQUEST_H_

#include "redundancy_health/frame/sync_context.h"

// Applies a local caller's request to this EM's trees. Everything here runs on sync_thread.

// Applies the request of rpc_msg. Returns true if an exchange must carry it to the peer; false if
// the request was completed with an error or had been answered before. In ST_UNLOCKED.
bool apply_local_request(SyncContext* ctx);

// Makes an applied request pending, so that its caller gets the outcome of the exchange. Does
// nothing if the state machine has already done so.
void mark_applied(SyncContext* ctx);

#endif  // EXCHANGE_LOCAL_REQUEST_H_
