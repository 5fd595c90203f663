#ifndef EXCHANGE_LISTING_H_
#define EXCHANGE_LISTING_H_

#include <stdint.h>

#include "redundancy_health/frame/sync_context.h"

// Serves the peer's MSG_LISTING_REQ: repeats the rename in its payload, if any, scans, and answers
// with MSG_LISTING_ACK and the listing lines, each with its NUL. If the scan fails, sends nothing.
// The payload may hold any bytes.
void serve_listing_request(SyncContext* ctx, const uint8_t* payload, uint32_t payload_size);

#endif  // EXCHANGE_LISTING_H_
