#include "redundancy_health/exchange/state_machine.h"

#include "tests/unit/daemon_support.h"

namespace {

constexpr int32_t kLongAgo = -77;  // never returned by get_uptime
constexpr uint32_t kInvalidState = 6;

class StateMachineTest : public DaemonTest {
 protected:
  // A daemon during exchange 7.3; it last served the peer's 9.2.
  void enter(uint32_t state, uint32_t stage = RPC_IDLE) {
    g_cpg.sent.clear();
    reset_cpg_result(ctx);
    ctx->cur_state = state;
    ctx->cur_exchange_id = 7;
    ctx->cur_sequence_id = 3;
    ctx->peer_exchange_id = 9;
    ctx->peer_sequence_id = 2;
    ctx->rpc_stage = stage;
    ctx->rpc_deferred = 0;
    ctx->cur_exchange_em_is_active = 0;
    ctx->state_time = kLongAgo;
  }

  // A message with these ids. An update is for the file "gone" in root 0.
  void message(uint32_t command, bool own, uint32_t exchange_id, uint32_t sequence_id,
               uint32_t update_type = PUSH_NOP, const RpcResult* result = nullptr) {
    CpgHeader header = {kCpgMagic, command, 0, exchange_id, sequence_id, {}};
    storage_cfg_set_result(&header.result, 0, nullptr);
    if (result != nullptr) header.result = *result;
    const std::string body = update_type == PUSH_NOP ? "" : update(update_type, 0, "gone", 0, 0, 0);
    on_sync_state_change(ctx, command, own ? 1 : 2, &header,
                         reinterpret_cast<const uint8_t*>(body.data()),
                         static_cast<uint32_t>(body.size()));
  }

  // State and sent messages; for an exchange that ended with an error, only its text.
  std::string outcome() const {
    std::string text = sync_state_name(ctx->cur_state);
    for (const std::string& sent : sent_messages())
      text += ", " + sent;
    return ctx->cpg_result.canceled && text == "ST_DONE, MSG_LOCK_REL 7.3"
               ? std::string("fails: ") + ctx->cpg_result.reason
               : text;
  }
};

// The effect of a group message in each state, from the peer and from this daemon. "!" is the error
// followed by the name of the state.
const struct {
  uint32_t command, update_type;
  const char* error;
  const char* in_state[7][2];
} kTransitions[] = {
    // clang-format off
    {MSG_LOCK_REQ, PUSH_NOP, "Received unexpected LOCK_REQ message in state ",
     {{"ST_PEERLOCK", "fails: Unexpected LOCK_REQ message from self in UNLOCKED state"},
      {"ST_PEERLOCK", "ST_LISTREQ, MSG_LISTING_REQ 7.3"},
      {"ST_PEERLOCK", "ST_PEERLOCK"},
      {"ST_LISTREQ", "fails: Unexpected LOCK_REQ message from self in state ST_LISTREQ"},
      {"ST_UPDATE", "fails: Unexpected LOCK_REQ message from self in state ST_UPDATE"},
      {"fails: Unexpected LOCK_REQ message from peer in state ST_DONE", "ST_DONE"}, {"!", "!"}}},
    {MSG_LOCK_REL, PUSH_NOP, "Received early LOCK_REL message in state ",
     {{"ST_UNLOCKED", "ST_UNLOCKED"}, {"!", "!"}, {"ST_UNLOCKED", "ST_UNLOCKED"},
      {"!", "!"}, {"!", "!"}, {"ST_UNLOCKED", "ST_UNLOCKED"}, {"!", "!"}}},
    {MSG_LISTING_REQ, PUSH_NOP, "Received unexpected LISTING_REQ message in state ",
     {{"!", "!"}, {"!", "!"}, {"ST_PEERLOCK, MSG_LISTING_ACK 9.2", "!"},
      {"!", "ST_LISTREQ"}, {"!", "!"}, {"!", "ST_DONE"}, {"!", "!"}}},
    {MSG_LISTING_ACK, PUSH_NOP, "Received unexpected LISTING_ACK message in state ",
     {{"!", "!"}, {"!", "!"}, {"!", "ST_PEERLOCK"},
      {"ST_DONE, MSG_LOCK_REL 7.3", "!"}, {"!", "!"}, {"!", "!"}, {"!", "!"}}},
    {MSG_UPDATE_REQ, PUSH_DEL_REQ, "Received unexpected UPDATE_REQ message in state ",
     {{"!", "!"}, {"!", "!"}, {"ST_PEERLOCK, MSG_UPDATE_ACK 9.3", "!"},
      {"!", "!"}, {"!", "ST_UPDATE"}, {"!", "ST_DONE"}, {"!", "!"}}},
    {MSG_UPDATE_ACK, PUSH_ACK, "Received unexpected MSG_UPDATE_ACK message in state ",
     {{"!", "!"}, {"!", "!"}, {"!", "ST_PEERLOCK"},
      {"!", "!"}, {"ST_DONE, MSG_LOCK_REL 7.3", "!"}, {"!", "!"}, {"!", "!"}}},
    // clang-format on
};

}  // namespace

TEST_F(StateMachineTest, EveryGroupMessageInEveryState) {
  for (const auto& row : kTransitions) {
    for (uint32_t state = ST_UNLOCKED; state <= kInvalidState; ++state) {
      for (const bool own : {false, true}) {
        SCOPED_TRACE(std::string(sync_command_name(row.command)) + (own ? " own" : " peer's"));
        // The message has the ids of the exchange that its command belongs to.
        const bool answer = row.command == MSG_LISTING_ACK || row.command == MSG_UPDATE_ACK;
        const uint32_t id = own || answer ? 7 : row.command == MSG_LOCK_REQ ? 0x80000001 : 9;
        enter(state);
        message(row.command, own, id, 3, row.update_type);
        std::string expected = row.in_state[state][own];
        if (expected == "!") expected = std::string("fails: ") + row.error + sync_state_name(state);
        EXPECT_EQ(outcome(), expected);
        const bool locked = row.command == MSG_LOCK_REQ && !own && outcome() == "ST_PEERLOCK";
        EXPECT_EQ(ctx->state_time != kLongAgo, row.command >= MSG_UPDATE_REQ || locked);
        EXPECT_EQ(ctx->peer_sequence_id, row.command == MSG_UPDATE_REQ || locked ? 3u : 2u);
        EXPECT_EQ(ctx->peer_exchange_id, locked ? 0x80000001 : 9u);
      }
    }
  }
}

TEST_F(StateMachineTest, ThePeersFailureBecomesTheOutcome) {
  enter(ST_UPDATE, RPC_PENDING);
  ctx->update_queue = new_file_entry(1, root_paths[1], "next");
  RpcResult result;
  storage_cfg_set_result(&result, 20, nullptr);
  memset(result.reason, 'x', sizeof(result.reason));  // not terminated
  result.local_ok = 0;                                // of its part
  message(MSG_UPDATE_ACK, false, 7, 3, PUSH_ACK, &result);
  EXPECT_EQ(outcome(), "fails: " + std::string(115, 'x'));
  EXPECT_EQ(ctx->rpc_result.reason, std::string(115, 'x'));
  EXPECT_EQ(ctx->rpc_result.local_ok, 1);
}
