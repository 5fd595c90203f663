#ifndef TRANSPORT_EXCHANGE_OUTCOME_H_
#define TRANSPORT_EXCHANGE_OUTCOME_H_

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "redundancy_health/frame/sync_context.h"

constexpr uint32_t kReplicationFaultEvent = 0x80000702;
constexpr uint32_t kReplicationFaultId = 0x000F0018;
constexpr uint32_t kReplicationHealthy = 1;
constexpr uint32_t kReplicationFailing = 4;

// The state of replication as the platform's event service hears it.
struct ReplicationFaultEvent {
  uint32_t em_num;    // the peer's number
  uint32_t fault_id;  // kReplicationFaultId
  uint32_t status;    // kReplicationHealthy or kReplicationFailing
  uint8_t data[1024];
};
static_assert(sizeof(ReplicationFaultEvent) == 1036);
static_assert(offsetof(ReplicationFaultEvent, em_num) == 0);
static_assert(offsetof(ReplicationFaultEvent, fault_id) == 4);
static_assert(offsetof(ReplicationFaultEvent, status) == 8);
static_assert(offsetof(ReplicationFaultEvent, data) == 12);

// Makes the active EM start an exchange of its own some passes of the sync loop later, unless that
// is on its way already.
void arm_resync(SyncContext* ctx);

// Milliseconds until this EM may begin an exchange of its own, 0 when it may now. The release of an
// exchange that a message or a time limit has failed may meet, and fail, the next exchange of the
// other EM, whose release then does the same here, as long as both have callers who do not wait. So
// each such failure is followed by a pause of random length, twice as long as the one before.
int pause_before_exchange(const SyncContext* ctx);

// Ends the exchange, successful or not: with an error in `flags` (frame/result_codes.h) the
// formatted reason becomes cpg_result, without one `format` is null and what was recorded stands.
// Then it counts failures and tells the event service, drops update_queue, releases the peer
// (unless the flags say that no exchange runs) and hands the outcome to a waiting local caller.
// On sync_thread.
void end_exchange_full_v(SyncContext* ctx, uint32_t flags, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
void end_exchange_full(SyncContext* ctx, uint32_t flags, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// The form for an outcome that is recorded already, a success or a failure.
void end_exchange(SyncContext* ctx);
// The form for errors inside an exchange.
void end_exchange_error(SyncContext* ctx, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

#endif  // TRANSPORT_EXCHANGE_OUTCOME_H_
