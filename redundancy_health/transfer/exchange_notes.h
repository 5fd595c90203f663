#ifndef TRANSFER_EXCHANGE_NOTES_H_
#define TRANSFER_EXCHANGE_NOTES_H_

#include "redundancy_health/frame/sync_context.h"

// What an operator is told of an exchange, the peer's or an own one, once it is over: ten thousand
// files may go in it without a failure. On sync_thread.

// A file was deleted here because the EM that owns its tree no longer has it.
void note_deletion(SyncContext* ctx, const char* path);

// The peer changes the file `path` of a shared tree. It does so as the active EM: a local change to
// a shared tree that still waits has lost its rights, even if they come back. When this EM is
// the active one, too, the first such change of an exchange is logged, and both_active is set.
void note_shared_change(SyncContext* ctx, const char* path);

// The exchange is over: tells what was deleted, in one line, and forgets what was noted. Without a
// change to a shared tree both_active is cleared.
void close_notes(SyncContext* ctx);

#endif  // TRANSFER_EXCHANGE_NOTES_H_
