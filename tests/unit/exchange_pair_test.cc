// A whole exchange, message by message, in both roles.

#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/rpc/rpc_service.h"
#include "tests/unit/daemon_support.h"
#include "tests/unit/update_bytes.h"

using ExchangePairTest = DaemonTest;

namespace {

constexpr char kSyncRequest[2] = {0, 0};

}  // namespace

TEST_F(ExchangePairTest, ARequesterPushesPullsDeletesAndReleases) {
  set_active(true);
  const std::string big = pattern(65546);
  make_file(0, "big", big);
  make_file(1, "own", "abc", 0600);
  ctx->rpc_stage = RPC_REQUESTING;
  ctx->rpc_msg = reinterpret_cast<const uint8_t*>(kSyncRequest);
  ctx->current_rpc_size = sizeof(kSyncRequest);
  on_sync_rpc_update(ctx);

  const struct {
    const char* sent;
    std::string payload;
    uint32_t answer;  // command, and its payload; MSG_LOCK_REQ for no answer
    std::string answer_payload;
  } steps[] = {
      {"MSG_LOCK_REQ 1.0", "", MSG_LOCK_REQ, ""},
      {"MSG_LISTING_REQ 1.0", std::string(2, '\0'), MSG_LISTING_ACK,
       std::string("V a9993e364706816aba3e25717850c26c9cd0d89d 00000000 00000003 G gone\0"
                   "P 86f7e437faa5a7fce15d1ddcb9eaeaea377667b8 00000000 00000001 G theirs",
                   138)},
      {"MSG_UPDATE_REQ 1.1", update(PUSH_REQ, 0, "big", 0, 65536, 65546, big.substr(0, 65536)),
       MSG_UPDATE_ACK, update(PUSH_ACK, 0, "big", 0, 0, 0)},
      {"MSG_UPDATE_REQ 1.2", update(PUSH_REQ, 0, "big", 65536, 65546, 65546, big.substr(65536)),
       MSG_UPDATE_ACK, update(PUSH_ACK, 0, "big", 0, 0, 0)},
      {"MSG_UPDATE_REQ 1.3", update(PUSH_REQ, 1, "own", 0, 3, 3, "abc", kRestricted),
       MSG_UPDATE_ACK, update(PUSH_ACK, 1, "own", 0, 0, 0)},
      {"MSG_UPDATE_REQ 1.4", update(PUSH_DEL_REQ, 3, "gone", 0, 3, 0), MSG_UPDATE_ACK,
       update(PUSH_DEL_ACK, 3, "gone", 0, 0, 0)},
      {"MSG_UPDATE_REQ 1.5", update(PULL_REQ, 2, "theirs", 0, 1, 0), MSG_UPDATE_ACK,
       update(PULL_ACK, 1, "theirs", 0, 1, 1, "a")},
  };
  uint32_t sequence_id = 0;
  for (const auto& step : steps) {
    ASSERT_EQ(sent_messages().back(), step.sent);
    const SentMessage sent = g_cpg.sent.back();
    EXPECT_TRUE(sent.payload == step.payload) << step.sent;
    deliver_own(sent);
    if (step.answer == MSG_UPDATE_ACK) ++sequence_id;
    if (step.answer != MSG_LOCK_REQ)
      deliver_from_peer(message_bytes(step.answer, 1, sequence_id, step.answer_payload));
  }
  ASSERT_EQ(sent_messages().back(), "MSG_LOCK_REL 1.5");
  EXPECT_EQ(g_cpg.sent.size(), 8u);
  EXPECT_EQ(+ctx->rpc_stage, RPC_COMPLETE);
  EXPECT_EQ(ctx->rpc_result.success, 1);
  EXPECT_EQ(ctx->rpc_result.peer_present, 0x59u);
  EXPECT_EQ(fault_status(), 1u);
  EXPECT_EQ(read_file(tree_path(2, "theirs")), "a");
  deliver_own(g_cpg.sent.back());
  EXPECT_EQ(ctx->cur_state, ST_UNLOCKED);
  EXPECT_EQ(logged(3), std::vector<std::string>());
}

TEST_F(ExchangePairTest, AResponderServesAndIsReleased) {
  const std::string big = pattern(65546);
  make_file(1, "own", "abc", 0600);
  make_file(0, "lost", "");
  const struct {
    uint32_t command, sequence_id;
    std::string payload;
    const char* answer;  // null: none
    std::string answer_payload;
  } steps[] = {
      {MSG_LOCK_REQ, 0, "", nullptr, ""},
      {MSG_LISTING_REQ, 0, "", "MSG_LISTING_ACK 4.0",
       std::string("P a9993e364706816aba3e25717850c26c9cd0d89d 00000000 00000003 P own\0"
                   "A da39a3ee5e6b4b0d3255bfef95601890afd80709 00000000 00000000 G lost",
                   135)},
      {MSG_UPDATE_REQ, 1, update(PUSH_REQ, 1, "theirs", 0, 1, 1, "a", kRestricted),
       "MSG_UPDATE_ACK 4.1", update(PUSH_ACK, 1, "theirs", 0, 0, 0)},
      {MSG_UPDATE_REQ, 2, update(PUSH_REQ, 3, "d/big", 65536, 65546, 65546, big.substr(65536)),
       "MSG_UPDATE_ACK 4.2", update(PUSH_ACK, 3, "d/big", 0, 0, 0)},
      {MSG_UPDATE_REQ, 3, update(PUSH_REQ, 3, "d/big", 0, 65536, 65546, big.substr(0, 65536)),
       "MSG_UPDATE_ACK 4.3", update(PUSH_ACK, 3, "d/big", 0, 0, 0)},
      {MSG_UPDATE_REQ, 4, update(PUSH_DEL_REQ, 0, "lost", 0, 0, 0), "MSG_UPDATE_ACK 4.4",
       update(PUSH_DEL_ACK, 0, "lost", 0, 0, 0)},
      {MSG_UPDATE_REQ, 5, update(PULL_REQ, 2, "own", 1, 3, 0), "MSG_UPDATE_ACK 4.5",
       update(PULL_ACK, 1, "own", 1, 3, 3, "bc", kRestricted)},
      {MSG_LOCK_REL, 5, "", nullptr, ""},
  };
  for (const auto& step : steps) {
    g_cpg.sent.clear();
    deliver_from_peer(message_bytes(step.command, 4, step.sequence_id, step.payload));
    if (step.answer == nullptr) continue;
    ASSERT_EQ(sent_messages(), std::vector<std::string>{step.answer});
    EXPECT_TRUE(g_cpg.sent[0].payload == step.answer_payload) << step.answer;
    EXPECT_EQ(g_cpg.sent[0].header.result.success, 1);
    EXPECT_EQ(g_cpg.sent[0].header.flags, FLAG_PEER_EXCHANGE);
    deliver_own(SentMessage(g_cpg.sent[0]));
    EXPECT_EQ(ctx->cur_state, ST_PEERLOCK);
  }
  EXPECT_EQ(ctx->cur_state, ST_UNLOCKED);
  EXPECT_EQ(g_cpg.sent.size(), 0u);
  EXPECT_EQ(read_file(tree_path(2, "theirs")), "a");
  EXPECT_EQ(mode_of(tree_path(2, "theirs")), 0600);
  EXPECT_TRUE(read_file(tree_path(3, "d/big")) == big);
  EXPECT_FALSE(exists(tree_path(0, "lost")));
  EXPECT_EQ(logged(3), std::vector<std::string>());
}
