// A listing of the peer, then an exchange that gets every update accepted.

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
  start_comparison(data, size);
  for (int i = 0; i < kMaxUpdates && ctx->cur_state == ST_UPDATE && !ctx->cpg_result.canceled; ++i)
    answer_update(ctx);
  end_run();
  return 0;
}
