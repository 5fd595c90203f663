#ifndef TRANSFER_OUTGOING_H_
#define TRANSFER_OUTGOING_H_

#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/frame/sync_context.h"

// Sends one update: a request (PULL_REQ, PUSH_REQ, PUSH_DEL_REQ) in this daemon's exchange or an
// answer in the peer's. `local_path` is the file that a PUSH_REQ or PULL_ACK reads its chunk from;
// when it cannot be read, the message goes out without valid data and carries the failure.
// `result` rides in the group header, null means success; a failure becomes cpg_result too. The
// entry stays the caller's. On sync_thread.
void send_update_message(SyncContext* ctx, const FileEntry* entry, const char* local_path,
                         const RpcResult* result);

// Sends the next entry of update_queue and frees it, or ends the exchange when none is left.
// Entries of the active EM's trees are dropped in an exchange without its rights.
void update_next_chunk(SyncContext* ctx);

#endif  // TRANSFER_OUTGOING_H_
