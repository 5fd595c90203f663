#include "redundancy_health/frame/sync_context.h"

#include "platform/util.h"
#include "redundancy_health/frame/checked_lock.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/frame/state_report.h"

SyncContext g_context;

void init_context(SyncContext* ctx) {
  // Log text: keep it unchanged, including NULL.
  CHECK_ZERO(pthread_mutex_init(&ctx->rpc_mutex, NULL));
  _brel_cond_init(&ctx->rpc_cond);
  HOLD_MUTEX(ctx->rpc_mutex);
  ctx->rpc_fd = -1;
  ctx->cpg_local_nodeid = 0;
  ctx->cpg_handle = 0;
  ctx->cpg_initialized = 0;
  ctx->state_time = 0;
  ctx->cpg_membership_flags = 0;
  ctx->cur_exchange_id = 0;
  ctx->cur_sequence_id = 0;
  ctx->peer_exchange_id = 0;
  ctx->peer_sequence_id = 0;
  ctx->cur_exchange_em_is_active = 0;
  ctx->cur_exchange_compares = 0;
  ctx->rpc_deferred = 0;
  ctx->cur_state = ST_UNLOCKED;
  reset_cpg_result(ctx);
  ctx->resync_countdown = -1;
  ctx->consecutive_errors = 0;
  ctx->exchange_pause = 0;
  ctx->no_exchange_before = 0;
  ctx->update_queue = nullptr;
  ctx->notes = {};
  ctx->change_overtaken = 0;
  ctx->both_active = 0;
  ctx->guarded_root = nullptr;
  ctx->guarded_deletions = 0;
  ctx->guarded_files = 0;
  ctx->rpc_stage = RPC_IDLE;
  ctx->rpc_msg = nullptr;
  ctx->current_rpc_size = 0;
  ctx->rpc_compare = 0;
  ctx->rpc_report = -1;
  ctx->waiting_rpc_count = 0;
  storage_cfg_set_result(&ctx->rpc_result, RESULT_OK, nullptr);
}

void reset_cpg_result(SyncContext* ctx) {
  storage_cfg_set_result(&ctx->cpg_result, RESULT_OK, nullptr);
  forget_exchange();
}

uint32_t read_rpc_stage(SyncContext* ctx) {
  HOLD_MUTEX(ctx->rpc_mutex);
  return ctx->rpc_stage;
}

uint32_t peek_rpc_stage(const SyncContext* ctx) {
  return ctx->rpc_stage;
}

int32_t peek_waiting_rpc_count(const SyncContext* ctx) {
  return ctx->waiting_rpc_count;
}

uint32_t read_rpc_request(SyncContext* ctx, const uint8_t** message, uint32_t* size) {
  HOLD_MUTEX(ctx->rpc_mutex);
  *message = ctx->rpc_msg;
  *size = ctx->current_rpc_size;
  return ctx->rpc_stage;
}

bool request_is_comparison(SyncContext* ctx) {
  HOLD_MUTEX(ctx->rpc_mutex);
  return ctx->rpc_compare != 0;
}
