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

// The state of replication, as sent to the platform's event service.
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

// Makes the active EM start an exchange after some passes of the sync loop, unless one is already
// scheduled.
void arm_resync(SyncContext* ctx);

// Milliseconds until this EM may start an exchange; 0 = now. When a message or a timeout fails an
// exchange, its release may reach, and fail, the next exchange of the other EM. That one's release
// may then fail the next one here, and so on, as long as callers on both EMs do not wait. So after
// each such failure this EM pauses for a random time, twice as long as after the previous one.
int pause_before_exchange(const SyncContext* ctx);

// Ends the exchange, successful or not. If `flags` (frame/result_codes.h) reports an error, the
// formatted reason becomes cpg_result; otherwise `format` is null and cpg_result is kept. Then
// counts failures, tells the event service, clears update_queue, releases the peer (unless the
// flags say that no exchange runs) and passes the outcome to a waiting local caller. On
// sync_thread.
void end_exchange_full_v(SyncContext* ctx, uint32_t flags, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
void end_exchange_full(SyncContext* ctx, uint32_t flags, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// For an outcome, success or failure, that is already in cpg_result.
void end_exchange(SyncContext* ctx);
// For an error within an exchange.
void end_exchange_error(SyncContext* ctx, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

#endif  // TRANSPORT_EXCHANGE_OUTCOME_H_
