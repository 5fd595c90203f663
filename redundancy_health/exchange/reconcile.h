#ifndef EXCHANGE_RECONCILE_H_
#define EXCHANGE_RECONCILE_H_

#include <stdint.h>

#include "redundancy_health/frame/sync_context.h"

// The requester's comparison. Scans this EM's trees and pairs their chunks with the lines of the
// peer's listing (any bytes). Deletes from the copy of the peer's tree the files that the peer no
// longer has. Fills update_queue: first the pushes in scan order, then the pulls and remote
// deletions in listing order. Failures are recorded in cpg_result or end the exchange; the caller's
// next checkpoint sees them.
void compare_synced_files(SyncContext* ctx, const uint8_t* payload, uint32_t payload_size);

#endif  // EXCHANGE_RECONCILE_H_
