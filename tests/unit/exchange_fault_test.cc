// One fault at every message of an exchange, in both roles: the caller's answer stays true, nothing
// is stuck beyond the short timeout, and the next exchange succeeds.

#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/rpc/rpc_service.h"
#include "redundancy_health/transport/exchange_outcome.h"
#include "redundancy_health/transport/sync_thread.h"
#include "tests/unit/daemon_support.h"
#include "tests/unit/update_bytes.h"

namespace {

constexpr uint8_t kSyncRequest[2] = {0, 0};

enum Fault { kNone, kDropped, kPeerLeaves, kPeerJoins, kForeignMessage, kBadIds, kSendFails };
constexpr Fault kFaults[] = {kDropped,        kPeerLeaves, kPeerJoins,
                             kForeignMessage, kBadIds,     kSendFails};

class ExchangeFaultTest : public DaemonTest {
 protected:
  ExchangeFaultTest() {
    set_active(true);
    make_file(0, "pushed", "content");
    make_file(1, "pushed too", "content");
  }

  void change_membership(bool member, bool joined) {
    const struct cpg_name group = {7, "em-sync"};
    const struct cpg_address addresses[] = {{1, static_cast<uint32_t>(getpid()), 0}, {2, 4711, 0}};
    on_cpg_config(0, &group, addresses, member ? 2 : 1, &addresses[1], joined ? 0 : 1,
                  &addresses[1], joined ? 1 : 0);
  }

  // Lets one message through, or what the fault makes of it when its turn has come. False when it
  // did not arrive.
  bool pass(const SentMessage& message, bool own) {
    const bool faulty = turn_++ == fault_turn_ && fault_ != kSendFails;
    SentMessage delivered = message;
    if (faulty && fault_ == kDropped) return false;
    if (faulty && fault_ == kPeerLeaves) change_membership(false, false);
    if (faulty && fault_ == kPeerJoins) change_membership(true, true);
    if (faulty && fault_ == kForeignMessage) deliver_from_peer(std::string(147, 'x'));
    if (faulty && fault_ == kBadIds) ++delivered.header.exchange_id;
    if (own) {
      deliver_own(delivered);
    } else {
      deliver_from_peer(message_bytes(delivered.header.command, delivered.header.exchange_id,
                                      delivered.header.sequence_id, delivered.payload));
    }
    return !(faulty && fault_ == kBadIds);
  }

  // The peer of a requester: an empty EM that takes everything. It answers an own message that
  // has been delivered.
  void let_peer_answer(const SentMessage& request) {
    const auto& ids = request.header;
    SentMessage answer = {};
    answer.header.exchange_id = ids.exchange_id;
    answer.header.sequence_id = ids.sequence_id;
    if (ids.command == MSG_LISTING_REQ) {
      answer.header.command = MSG_LISTING_ACK;
    } else if (ids.command == MSG_UPDATE_REQ) {
      answer.header.command = MSG_UPDATE_ACK;
      answer.payload = update(PUSH_ACK, 0, "any", 0, 0, 0);
      ++peer_updates_;
    } else {
      return;
    }
    pass(answer, false);
  }

  // Delivers what is sent, and what the peer answers, until nothing moves any more.
  void settle() {
    while (delivered_ < g_cpg.sent.size()) {
      const SentMessage message = g_cpg.sent[delivered_++];
      if (pass(message, true) && (ctx->cpg_membership_flags & kPeerMember) != 0)
        let_peer_answer(message);
    }
  }

  // What sync_thread does after 10 s without progress.
  void time_out_if_stuck() {
    if (ctx->cur_state == ST_UNLOCKED && ctx->rpc_stage == RPC_IDLE) return;
    if (ctx->cur_state == ST_UNLOCKED && ctx->rpc_stage == RPC_COMPLETE) return;
    end_exchange_error(ctx, "Operation timed out");
    settle();
  }

  void begin(Fault fault, size_t turn) {
    g_cpg.sent.clear();
    g_cpg.mcast_results.clear();
    delivered_ = turn_ = 0;
    peer_updates_ = 0;
    fault_ = fault;
    fault_turn_ = turn;
    if (fault == kSendFails) {
      g_cpg.mcast_results.assign(turn, CS_OK);
      g_cpg.mcast_results.push_back(CS_ERR_LIBRARY);
    }
  }

  // A local sync request up to its answer. Returns the number of turns.
  size_t request_sync(Fault fault, size_t turn) {
    begin(fault, turn);
    ctx->rpc_stage = RPC_REQUESTING;
    ctx->rpc_msg = kSyncRequest;
    ctx->current_rpc_size = sizeof(kSyncRequest);
    on_sync_rpc_update(ctx);
    settle();
    time_out_if_stuck();
    return turn_;
  }

  void finish_request() {
    EXPECT_EQ(+ctx->rpc_stage, RPC_COMPLETE);
    EXPECT_EQ(ctx->cur_state, ST_UNLOCKED);
    EXPECT_EQ(ctx->update_queue, nullptr);
    if (ctx->rpc_result.success && ctx->rpc_result.peer_present == 'Y') {
      EXPECT_EQ(peer_updates_, 2) << "a success that the peer knows nothing of";
    }
    ctx->rpc_stage = RPC_IDLE;
    ctx->rpc_msg = nullptr;
    ctx->current_rpc_size = 0;
  }

  // A whole exchange of the peer with this daemon as responder. Returns the number of turns.
  size_t serve(Fault fault, size_t turn) {
    begin(fault, turn);
    const std::string push = update(PUSH_REQ, 1, "theirs", 0, 3, 3, "abc");
    const std::pair<uint32_t, std::string> messages[] = {
        {MSG_LOCK_REQ, ""},     {MSG_LISTING_REQ, std::string(2, '\0')},
        {MSG_UPDATE_REQ, push}, {MSG_UPDATE_REQ, update(PULL_REQ, 2, "pushed too", 0, 7, 0)},
        {MSG_LOCK_REL, ""},
    };
    ++peer_exchange_;
    uint32_t sequence_id = 0;
    for (const auto& [command, payload] : messages) {
      SentMessage message = {};
      message.header.command = command;
      message.header.exchange_id = peer_exchange_;
      message.header.sequence_id = sequence_id += command == MSG_UPDATE_REQ;
      message.payload = payload;
      pass(message, false);
      settle();
    }
    time_out_if_stuck();
    return turn_;
  }

  void return_of_the_peer() {
    begin(kNone, 0);
    if ((ctx->cpg_membership_flags & kPeerMember) == 0) change_membership(true, true);
    settle();
    time_out_if_stuck();
    ctx->rpc_stage = RPC_IDLE;
  }

 private:
  Fault fault_ = kNone;
  size_t fault_turn_ = 0;
  size_t turn_ = 0;
  size_t delivered_ = 0;
  int peer_updates_ = 0;
  uint32_t peer_exchange_ = 40;
};

}  // namespace

TEST_F(ExchangeFaultTest, ARequesterSurvivesAFaultAtEveryMessage) {
  const size_t turns = request_sync(kNone, 0);
  ASSERT_EQ(turns, 8u);
  EXPECT_EQ(ctx->rpc_result.success, 1);
  finish_request();
  for (const Fault fault : kFaults) {
    for (size_t turn = 0; turn < turns; ++turn) {
      SCOPED_TRACE("fault " + std::to_string(fault) + " at message " + std::to_string(turn));
      request_sync(fault, turn);
      finish_request();
      return_of_the_peer();
      request_sync(kNone, 0);
      EXPECT_EQ(ctx->rpc_result.success, 1) << ctx->rpc_result.reason;
      EXPECT_EQ(ctx->rpc_result.peer_present, uint32_t{'Y'});
      finish_request();
    }
  }
}

TEST_F(ExchangeFaultTest, AResponderSurvivesAFaultAtEveryMessage) {
  const size_t turns = serve(kNone, 0);
  ASSERT_EQ(turns, 8u);
  for (const Fault fault : kFaults) {
    for (size_t turn = 0; turn < turns; ++turn) {
      SCOPED_TRACE("fault " + std::to_string(fault) + " at message " + std::to_string(turn));
      serve(fault, turn);
      return_of_the_peer();
      unlink(tree_path(2, "theirs").c_str());
      serve(kNone, 0);
      EXPECT_EQ(ctx->cur_state, ST_UNLOCKED);
      EXPECT_EQ(read_file(tree_path(2, "theirs")), "abc");
      EXPECT_EQ(sent_messages().size(), 3u) << "a listing and two answers";
    }
  }
}

TEST_F(ExchangeFaultTest, AFullQueueIsWaitedForUpToAHundredCalls) {
  for (const size_t refusals : {99u, 100u}) {
    begin(kNone, 0);
    g_cpg.mcast_results.assign(refusals, CS_ERR_TRY_AGAIN);
    ctx->rpc_stage = RPC_REQUESTING;
    ctx->rpc_msg = kSyncRequest;
    ctx->current_rpc_size = sizeof(kSyncRequest);
    on_sync_rpc_update(ctx);
    settle();
    EXPECT_EQ(ctx->rpc_result.success, refusals == 99);
    EXPECT_STREQ(ctx->rpc_result.reason,
                 refusals == 99 ? "" : "Call to cpg_mcast_joined failed with code 6");
    time_out_if_stuck();
    finish_request();
  }
}
