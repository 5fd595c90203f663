#ifndef TRANSFER_OUTGOING_H_
#define TRANSFER_OUTGOING_H_

#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/frame/sync_context.h"

// Sends one update: a request (PULL_REQ, PUSH_REQ, PUSH_DEL_REQ) in this daemon's exchange, or an
// answer in the peer's. A PUSH_REQ or PULL_ACK reads its chunk from `local_path`; if that fails,
// the message carries the failure and no valid data. `result` is sent in the group header; null
// means success. A failure also becomes cpg_result. The entry stays the caller's. On sync_thread.
void send_update_message(SyncContext* ctx, const FileEntry* entry, const char* local_path,
                         const RpcResult* result);

// Sends the next entry of update_queue and frees it. If there is none, ends the exchange. Drops
// entries of shared trees if the exchange lacks the rights of the active EM.
void update_next_chunk(SyncContext* ctx);

#endif  // TRANSFER_OUTGOING_H_
