#ifndef TRANSFER_EXCHANGE_NOTES_H_
#define TRANSFER_EXCHANGE_NOTES_H_

#include "redundancy_health/frame/sync_context.h"

// Notes for the operator, logged at the end of an exchange, because an exchange may delete
// thousands of files without a failure. On sync_thread.

// Notes that a file was deleted here because the EM that owns its tree no longer has it.
void note_deletion(SyncContext* ctx, const char* path);

// Notes that the peer changes the file `path` of a shared tree, which it does as the active EM. A
// waiting local change to a shared tree loses its rights, even if the role comes back. If this EM
// is active, too, logs the first such change of an exchange and sets both_active.
void note_shared_change(SyncContext* ctx, const char* path);

// At the end of an exchange: logs the deletions in one line, and files that were not kept in
// another, and clears the notes. Clears both_active if no shared tree was changed.
void close_notes(SyncContext* ctx);

#endif  // TRANSFER_EXCHANGE_NOTES_H_
