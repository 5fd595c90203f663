// Any sequence of group messages, membership changes and local events, in every state.

#include <string.h>
#include <unistd.h>

#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/rpc/rpc_service.h"
#include "redundancy_health/transport/exchange_outcome.h"
#include "redundancy_health/transport/sync_thread.h"
#include "tests/fuzz/group_steps.h"
#include "tests/fuzz/sandbox.h"

namespace {

SyncContext* const ctx = &g_context;

// Requests that move nothing from outside into the roots.
constexpr char kThisSmall[] = "/mnt/part.persistent/replicated_by_this_em/small";
const std::vector<uint8_t> kRequests[] = {
    {0, 0},
    {'x'},
    {},
    [] {
      std::vector<uint8_t> message(1 + sizeof kThisSmall);
      memcpy(message.data() + 1, kThisSmall, sizeof kThisSmall);
      return message;
    }(),
    [] {
      std::vector<uint8_t> message(2 * sizeof kThisSmall);
      memcpy(message.data(), kThisSmall, sizeof kThisSmall);
      memcpy(message.data() + sizeof kThisSmall, kThisSmall, sizeof kThisSmall);
      message[2 * sizeof kThisSmall - 2] = '2';
      return message;
    }(),
};

size_t g_delivered;             // own messages that came back so far
std::vector<uint8_t> g_posted;  // the waiting caller's bytes

// The group brings every message back to its sender.
void deliver_own() {
  if (g_delivered == g_cpg.sent.size()) return;
  const SentMessage message = g_cpg.sent[g_delivered++];
  std::vector<uint8_t> bytes(sizeof message.header + message.payload.size());
  memcpy(bytes.data(), &message.header, sizeof message.header);
  memcpy(bytes.data() + sizeof message.header, message.payload.data(), message.payload.size());
  deliver(kOwnNode, bytes);
}

// A message of the peer with the ids that the daemon waits for.
void deliver_fitting(Input* in) {
  const uint32_t command = in->u8() % 6;
  const bool answer = command == MSG_LISTING_ACK || command == MSG_UPDATE_ACK;
  const std::vector<uint8_t> payload = in->block();
  const uint32_t peer_id = command == MSG_LOCK_REQ ? kPeerExchange : ctx->peer_exchange_id;
  deliver(kPeerNode, command, answer ? ctx->cur_exchange_id : peer_id, ctx->cur_sequence_id,
          payload.data(), payload.size());
}

void deliver_any(Input* in) {
  const uint32_t node = in->u8() & 1 ? kOwnNode : kPeerNode;
  std::vector<uint8_t> message = in->block();
  if (in->u8() & 1 && message.size() >= sizeof kCpgMagic)
    memcpy(message.data(), &kCpgMagic, sizeof kCpgMagic);
  deliver(node, message);
}

void change_membership(uint8_t flags) {
  const cpg_address self = {kOwnNode, static_cast<uint32_t>(getpid()), 0};
  const cpg_address peer = {kPeerNode, 1, 0};
  const cpg_name group = {7, "em-sync"};
  std::vector<cpg_address> lists[3];
  for (int i = 0; i < 3; ++i) {
    if (flags >> (2 * i) & 1) lists[i].push_back(self);
    if (flags >> (2 * i) & 2) lists[i].push_back(peer);
  }
  on_cpg_config(0, &group, lists[0].data(), lists[0].size(), lists[2].data(), lists[2].size(),
                lists[1].data(), lists[1].size());
}

void request(uint8_t which) {
  if (ctx->rpc_stage != RPC_IDLE) return;
  g_posted = kRequests[which % std::size(kRequests)];
  post_request(g_posted);
  if (ctx->cur_state != ST_UNLOCKED) {
    ctx->rpc_deferred = 1;
  } else {
    on_sync_rpc_update(ctx);
  }
}

void resync() {
  if (ctx->rpc_stage != RPC_IDLE) return;
  ctx->rpc_stage = RPC_LOCAL_BUSY;
  ctx->cur_exchange_em_is_active = 1;
  on_sync_state_change(ctx, ON_SYNC_REQ, kOwnNode, nullptr, nullptr, 0);
}

void step(Input* in) {
  switch (in->u8() % kGroupSteps) {
    case kDeliverOwn:
      return deliver_own();
    case kDeliverFitting:
      return deliver_fitting(in);
    case kDeliverAny:
      return deliver_any(in);
    case kMembership:
      return change_membership(in->u8());
    case kRequest:
      return request(in->u8());
    case kResync:
      return resync();
    case kTimeout:
      return end_exchange_error(ctx, "Operation timed out");
    case kFailSend:
      return g_cpg.mcast_results.push_back(CS_ERR_LIBRARY);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  g_delivered = 0;
  start_run(in.u8() & 1);
  while (!in.empty()) {
    step(&in);
    if (take_result()) g_posted = {};
  }
  end_run();
  g_posted = {};
  return 0;
}
