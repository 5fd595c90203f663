// A listing of the peer, then an exchange that gets every update accepted.

#include "redundancy_health/exchange/state_machine.h"
#include "tests/fuzz/sandbox.h"

namespace {

constexpr int kMaxUpdates = 40;

// Answers the last update request as a peer that did what it was asked.
void answer_update(SyncContext* ctx) {
  const SentMessage request = g_cpg.sent.back();
  // An answer that has nothing to write: type PUSH_ACK.
  std::string payload = request.payload;
  payload[0] = static_cast<char>(PUSH_ACK);
  deliver(kPeerNode, MSG_UPDATE_ACK, ctx->cur_exchange_id, ctx->cur_sequence_id, payload.data(),
          payload.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SyncContext* ctx = &g_context;
  start_run(true);
  ctx->rpc_stage = RPC_LOCAL_BUSY;
  ctx->cur_exchange_em_is_active = 1;
  on_sync_state_change(ctx, ON_SYNC_REQ, kOwnNode, nullptr, nullptr, 0);
  deliver(kOwnNode, MSG_LOCK_REQ, ctx->cur_exchange_id, 0, nullptr, 0);
  deliver(kPeerNode, MSG_LISTING_ACK, ctx->cur_exchange_id, 0, data, size);
  for (int i = 0; i < kMaxUpdates && ctx->cur_state == ST_UPDATE && !ctx->cpg_result.canceled; ++i)
    answer_update(ctx);
  end_run();
  return 0;
}
