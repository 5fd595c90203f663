#include "redundancy_health/transport/cpg_message.h"

#include <sys/uio.h>
#include <unistd.h>

#include "redundancy_health/frame/checked_lock.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/transport/exchange_outcome.h"

namespace {

constexpr int kMaxSendCalls = 100;
constexpr useconds_t kRetryDelay = 10000;  // 10 ms

bool send_failure_injected() {
  HOLD_MUTEX(g_diag_params.mutex);
  return g_diag_params.cpg_send_fail != 0;
}

cs_error_t send_cpg_message(SyncContext* ctx, CpgHeader* header, const void* payload,
                            uint32_t payload_size) {
  if (send_failure_injected()) return CS_ERR_FAILED_OPERATION;
  const struct iovec pieces[2] = {{header, sizeof(*header)},
                                  {const_cast<void*>(payload), payload_size}};
  cs_error_t rc = CS_ERR_TRY_AGAIN;
  for (int call = 0; call < kMaxSendCalls; ++call) {
    if (call > 0) usleep(kRetryDelay);
    rc = cpg_mcast_joined(ctx->cpg_handle, CPG_TYPE_AGREED, pieces, 2);
    if (rc != CS_ERR_TRY_AGAIN) break;
  }
  return rc;
}

}  // namespace

const char* sync_command_name(uint32_t command) {
  static const char* const names[] = {
      "MSG_LOCK_REQ",   "MSG_LOCK_REL", "MSG_LISTING_REQ", "MSG_LISTING_ACK", "MSG_UPDATE_REQ",
      "MSG_UPDATE_ACK", "ON_SYNC_REQ",  "ON_TIMEOUT",      "ON_CPG_JOINED",   "ON_CPG_LEFT"};
  return command < sizeof(names) / sizeof(names[0]) ? names[command] : "MSG_???";
}

void send_cpg_command(SyncContext* ctx, uint32_t command, uint32_t flags, const RpcResult* result,
                      const void* payload, uint32_t payload_size) {
  const bool reply = (flags & FLAG_PEER_EXCHANGE) != 0;
  CpgHeader header;
  header.magic = kCpgMagic;
  header.command = command;
  header.flags = flags;
  header.exchange_id = reply ? ctx->peer_exchange_id : ctx->cur_exchange_id;
  header.sequence_id = reply ? ctx->peer_sequence_id : ctx->cur_sequence_id;
  // `cluster_sync_ctl explain` reads this format.
  LOG(7, "Send CPG msg: %-16s xid=%u sid=%u payload-len=%u", sync_command_name(command),
      header.exchange_id, header.sequence_id, payload_size);
  storage_cfg_set_result(&header.result, RESULT_OK, nullptr);
  if (result != nullptr) header.result = *result;

  const cs_error_t rc = send_cpg_message(ctx, &header, payload, payload_size);
  if (rc == CS_OK) return;
  // Keep the first error of an exchange, which is the cause.
  if (!ctx->cpg_result.canceled) {
    storage_cfg_set_result(&ctx->cpg_result, RESULT_EXCHANGE_FAILED,
                           "Call to cpg_mcast_joined failed with code %d", rc);
    LOG(3, "%s", ctx->cpg_result.reason);
  }
  if ((flags & FLAG_NO_END) == 0) end_exchange(ctx);
}

void check_header_ids(SyncContext* ctx, uint32_t exchange_id, const uint32_t* sequence_id,
                      uint32_t check_flags) {
  const uint32_t expected =
      (check_flags & FLAG_PEER_EXCHANGE) != 0 ? ctx->peer_exchange_id : ctx->cur_exchange_id;
  if (exchange_id != expected) {
    end_exchange_error(ctx, "Mismatched exchange ID in message: expected %u, got %u", expected,
                       exchange_id);
  }
  if ((check_flags & FLAG_CHECK_SEQUENCE) != 0 && *sequence_id != ctx->cur_sequence_id) {
    // Log text: keep it unchanged.
    end_exchange_error(ctx, "Mismatched sequence_id ID in message: expected %u, got %u",
                       ctx->cur_sequence_id, *sequence_id);
  }
}
