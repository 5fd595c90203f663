// The payload of one update message, to the daemon that serves and to the one that asked.

#include "tests/fuzz/sandbox.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  start_run(false);
  deliver(kPeerNode, MSG_LOCK_REQ, kPeerExchange, 0, nullptr, 0);
  deliver(kPeerNode, MSG_UPDATE_REQ, kPeerExchange, 1, data, size);
  g_context.cur_state = ST_UPDATE;
  reset_cpg_result(&g_context);
  deliver(kPeerNode, MSG_UPDATE_ACK, g_context.cur_exchange_id, g_context.cur_sequence_id, data,
          size);
  end_run();
  return 0;
}
