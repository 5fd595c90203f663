#ifndef TRANSFER_INCOMING_H_
#define TRANSFER_INCOMING_H_

#include <stdint.h>

#include "redundancy_health/frame/sync_context.h"

// Applies one update message from the peer (any bytes) to the local trees and answers a request. A
// malformed message changes nothing and ends the exchange with an error. If a request fails, the
// answer carries the failure; if a PULL_ACK fails, the failure is recorded in cpg_result. On
// sync_thread.
void on_update_chunk(SyncContext* ctx, const uint8_t* payload, uint32_t payload_size);

#endif  // TRANSFER_INCOMING_H_
