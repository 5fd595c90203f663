// The message of a local request, and the same bytes as the peer repeats them.

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "redundancy_health/rpc/rpc_service.h"
#include "tests/fuzz/sandbox.h"

namespace {

// A local caller may move any file of this EM into the trees; what it moves is not to be ours.
bool moves_from_outside(const std::vector<uint8_t>& message) {
  const auto end = std::find(message.begin(), message.end(), 0);
  const std::string source(message.begin(), end);
  char resolved[PATH_MAX];
  if (source.empty() || realpath(source.c_str(), resolved) == nullptr) return false;
  const std::string path(resolved);
  return path.find("/replicated_by_") == std::string::npos ||
         path.find('/', path.find("/replicated_by_") + 1) == std::string::npos;
}

void serve_local(const std::vector<uint8_t>& message) {
  if (moves_from_outside(message)) return;
  post_request(message);
  on_sync_rpc_update(&g_context);
  if (g_context.cur_state != ST_LOCKREQ) return;
  deliver(kOwnNode, MSG_LOCK_REQ, g_context.cur_exchange_id, 0, nullptr, 0);
  deliver(kPeerNode, MSG_LISTING_ACK, g_context.cur_exchange_id, 0, nullptr, 0);
}

void serve_peer(const std::vector<uint8_t>& message) {
  deliver(kPeerNode, MSG_LOCK_REQ, kPeerExchange, 0, nullptr, 0);
  deliver(kPeerNode, MSG_LISTING_REQ, kPeerExchange, 0, message.data(), message.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const uint8_t mode = in.u8();
  start_run(mode & 2);
  const std::vector<uint8_t> message = in.rest();
  if (mode & 1) {
    serve_peer(message);
  } else {
    serve_local(message);
  }
  end_run();
  return 0;
}
