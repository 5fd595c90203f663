#ifndef RPC_RPC_SERVICE_H_
#define RPC_RPC_SERVICE_H_

#include <stdint.h>

#include "redundancy_health/frame/sync_context.h"

// Serves one local request. `message` holds the source and the destination path, each with its NUL.
// Both empty: only an exchange; no source: delete the destination; both: rename. Blocks until the
// request was served or refused, and fills `*result`. On a thread of the command server, any number
// at once.
void on_rpc_update(RpcResult* result, const uint8_t* message, uint32_t size);

// Compares the trees of both EMs in an exchange that changes neither. Blocks like on_rpc_update.
// Returns a descriptor of the differences (exchange/difference_report.h), which the caller closes,
// or -1 if `*result` is a failure or the peer is away.
int on_rpc_compare(RpcResult* result);

#endif  // RPC_RPC_SERVICE_H_
