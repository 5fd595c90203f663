#include "redundancy_health/transport/exchange_outcome.h"

#include <string.h>
#include <sys/random.h>

#include <algorithm>

#include "platform/em.h"
#include "platform/event.h"
#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/frame/checked_lock.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/transport/cpg_message.h"

namespace {

constexpr int32_t kFirstResyncDelay = 5;  // passes of the sync loop
constexpr int32_t kFirstPause = 20;       // ms, plus a random part of up to the same length
constexpr int32_t kLongestPause = 1000;   // ms, plus the same

void send_fault_event(uint32_t status) {
  ReplicationFaultEvent event;
  memset(&event, 0, sizeof(event));
  event.em_num = get_my_mate_em_num();
  event.fault_id = kReplicationFaultId;
  event.status = status;
  if (event_send(kReplicationFaultEvent, &event, sizeof(event)) != 0) {
    LOG_PLATFORM_ONLY(3, "Failed to send data replication fault event (new status: %d) for EM %d",
                      static_cast<int>(status), static_cast<int>(event.em_num));
  }
}

// Counts failures on the active EM and sends the state of the fault. A single failed exchange is
// not a fault yet.
void account_for_faults(SyncContext* ctx, uint32_t flags) {
  if (!this_em_is_active()) {
    ctx->consecutive_errors = 0;
    ctx->resync_countdown = -1;
    return;
  }
  if (ctx->cpg_result.peer_present == 'N' || ctx->cpg_result.benign ||
      (flags & kCodeUncounted) == kCodeUncounted) {
    return;
  }
  // A successful comparison does not prove that changes work.
  if (ctx->cur_exchange_compares) return;
  uint32_t status = kReplicationHealthy;
  if (ctx->cpg_result.success) {
    ctx->consecutive_errors = 0;
    ctx->resync_countdown = -1;
  } else {
    arm_resync(ctx);
    ++ctx->consecutive_errors;
    LOG_PLATFORM_ONLY(3, "Replication failed, consecutive errors=%d", ctx->consecutive_errors);
    if (ctx->consecutive_errors > 1) status = kReplicationFailing;
  }
  send_fault_event(status);
}

// Starts the pause after a failed exchange. The random part keeps the two EMs from colliding again.
void begin_pause(SyncContext* ctx) {
  ctx->exchange_pause =
      ctx->exchange_pause == 0 ? kFirstPause : std::min(ctx->exchange_pause * 2, kLongestPause);
  uint32_t random = 0;
  (void)!getrandom(&random, sizeof(random), GRND_NONBLOCK);
  const uint32_t length = static_cast<uint32_t>(ctx->exchange_pause);
  ctx->no_exchange_before = get_uptime_ms() + length + random % length;
}

// Advances rpc_stage and wakes the waiting threads.
void hand_back_to_rpc(SyncContext* ctx) {
  HOLD_MUTEX(ctx->rpc_mutex);
  switch (ctx->rpc_stage) {
    case RPC_REQUESTING:
      // This request has not been applied: its own exchange would have made it pending. The success
      // of another exchange is no answer to it. If it is deferred, it is served next. Otherwise it
      // gets this failure.
      if (ctx->rpc_deferred || ctx->cpg_result.success) break;
      ctx->rpc_result = ctx->cpg_result;
      ctx->rpc_result.local_ok = 0;
      ctx->rpc_stage = RPC_COMPLETE;
      break;
    case RPC_PENDING:
      ctx->rpc_result = ctx->cpg_result;
      ctx->rpc_stage = RPC_COMPLETE;
      break;
    case RPC_COMPLETE:
      break;
    default:
      ctx->rpc_stage = RPC_IDLE;
      break;
  }
  CHECK_ZERO(pthread_cond_broadcast(&ctx->rpc_cond));
}

// Reports the outcome of this EM's exchange with the peer, for state queries.
void report_outcome(const SyncContext& ctx, uint32_t flags) {
  if ((flags & kCodeNoExchange) != 0) return;
  const bool synchronised = ctx.cur_state == ST_LISTREQ || ctx.cur_state == ST_UPDATE;
  if (!ctx.cpg_result.success) {
    report_failure(ctx.cpg_result.reason);
  } else if (synchronised && ctx.cpg_result.peer_present == 'Y') {
    report_success();
  }
}

}  // namespace

void arm_resync(SyncContext* ctx) {
  if (ctx->resync_countdown == -1) ctx->resync_countdown = kFirstResyncDelay;
}

int pause_before_exchange(const SyncContext* ctx) {
  if (ctx->exchange_pause == 0) return 0;
  const int64_t rest = ctx->no_exchange_before - get_uptime_ms();
  return static_cast<int>(std::clamp<int64_t>(rest, 0, int64_t{2} * kLongestPause));
}

void end_exchange_full_v(SyncContext* ctx, uint32_t flags, const char* format, va_list args) {
  if (!ctx->cpg_result.success) note_failure(ctx->cpg_result.reason);
  if ((flags & kCodeError) != 0) {
    storage_cfg_set_result_v(&ctx->cpg_result, flags, format, args);
    // `cluster_sync_ctl explain` reads this format.
    LOG_AS(__func__, 3, ctx->cpg_result.benign ? 0 : 1, "Sync Error: %s", ctx->cpg_result.reason);
  }
  ctx->cpg_result.peer_present =
      (ctx->cpg_membership_flags & kPeerMember) != 0 ? uint32_t{'Y'} : 'N';
  account_for_faults(ctx, flags);
  report_outcome(*ctx, flags);
  if ((flags & kCodeError) != 0 && (flags & kCodeNoExchange) == 0) begin_pause(ctx);
  if (ctx->cpg_result.success) ctx->exchange_pause = 0;
  free_file_list(&ctx->update_queue);
  if ((flags & kCodeNoExchange) == 0) {
    ctx->cur_state = ST_DONE;
    send_cpg_command(ctx, MSG_LOCK_REL, FLAG_NO_END, nullptr, nullptr, 0);
  }
  hand_back_to_rpc(ctx);
}

void end_exchange_full(SyncContext* ctx, uint32_t flags, const char* format, ...) {
  va_list args;
  va_start(args, format);
  end_exchange_full_v(ctx, flags, format, args);
  va_end(args);
}

void end_exchange(SyncContext* ctx) {
  end_exchange_full(ctx, RESULT_OK, nullptr);
}

void end_exchange_error(SyncContext* ctx, const char* format, ...) {
  va_list args;
  va_start(args, format);
  end_exchange_full_v(ctx, RESULT_EXCHANGE_FAILED, format, args);
  va_end(args);
}
