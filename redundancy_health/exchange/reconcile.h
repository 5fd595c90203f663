#ifndef EXCHANGE_RECONCILE_H_
#define EXCHANGE_RECONCILE_H_

#include <stdint.h>

#include "redundancy_health/frame/sync_context.h"

// The requester's comparison: scans this EM's trees, pairs their chunks with the lines of the
// peer's listing (any bytes), deletes here the files of the peer's tree that it no longer has, and
// leaves in update_queue what is to be sent: first the pushes in scan order, then the pulls and
// remote deletions in the order of the listing. Failures are recorded in cpg_result or end the
// exchange; the caller's next checkpoint sees them.
void compare_synced_files(SyncContext* ctx, const uint8_t* payload, uint32_t payload_size);

#endif  // EXCHANGE_RECONCILE_H_
