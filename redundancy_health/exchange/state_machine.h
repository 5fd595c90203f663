#ifndef EXCHANGE_STATE_MACHINE_H_
#define EXCHANGE_STATE_MACHINE_H_

#include <stdint.h>

#include "redundancy_health/frame/sync_context.h"
#include "redundancy_health/transport/cpg_message.h"

// The replication protocol. The pair runs one exchange at a time. The requester locks the pair with
// MSG_LOCK_REQ (on both sides the first request that the group delivers wins), fetches the peer's
// listing, sends its updates one by one and releases with MSG_LOCK_REL. The responder serves.

// Handles one event completely; never waits for a message. `command` 0 to 5 is a group message from
// `nodeid`, with its header and the `payload_size` bytes after it (owned by the caller, any
// content). 6 to 9 is a local event with the own node id, no header and no payload. On sync_thread.
void on_sync_state_change(SyncContext* ctx, uint32_t command, uint32_t nodeid,
                          const CpgHeader* cpg_header, const uint8_t* payload,
                          uint32_t payload_size);

// Serves the request of rpc_msg: applies it locally and starts the exchange that carries it to the
// peer, or completes it with an error. In ST_UNLOCKED, on sync_thread.
void on_sync_rpc_update(SyncContext* ctx);

// Serves a request that was deferred during an exchange, if any, unless the pause after a failed
// exchange still runs. In ST_UNLOCKED.
void serve_deferred_request(SyncContext* ctx);

// "ST_UNLOCKED" to "ST_DONE"; "ST_???" for larger numbers.
const char* sync_state_name(uint32_t state);

// "RPC_IDLE" to "RPC_LOCAL_BUSY"; "RPC_???" for larger numbers.
const char* rpc_stage_name(uint32_t stage);

#endif  // EXCHANGE_STATE_MACHINE_H_
