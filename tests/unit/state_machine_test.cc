#include "redundancy_health/exchange/state_machine.h"

#include <string.h>

#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/statistics.h"
#include "redundancy_health/transfer/update_message.h"
#include "tests/unit/daemon_support.h"

namespace {

constexpr int32_t kLongAgo = -77;  // no value of get_uptime
constexpr uint32_t kInvalidState = 6;
const uint8_t kSyncRequest[2] = {0, 0};

CpgHeader header_of(uint32_t exchange_id, uint32_t sequence_id) {
  CpgHeader header = {kCpgMagic, 0, 0, exchange_id, sequence_id, {}};
  storage_cfg_set_result(&header.result, 0, nullptr);
  return header;
}

// Payload of an update of the file "gone" in root 0.
std::string update_payload(uint32_t type) {
  UpdateHeader header = {};
  header.update_type = type;
  header.data_ok = 1;
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) +
         std::string("gone\0", 5);
}

class StateMachineTest : public DaemonTest {
 protected:
  StateMachineTest() {
    g_flight_recorder.paused = 1;
  }

  // A daemon in the middle of exchange 7.3 that last served the peer's 9.2.
  void enter(uint32_t state) {
    g_cpg.sent.clear();
    reset_cpg_result(ctx);
    ctx->cur_state = state;
    ctx->cur_exchange_id = 7;
    ctx->cur_sequence_id = 3;
    ctx->peer_exchange_id = 9;
    ctx->peer_sequence_id = 2;
    ctx->rpc_stage = RPC_IDLE;
    ctx->rpc_deferred = 0;
    ctx->cur_exchange_em_is_active = 0;
    ctx->state_time = kLongAgo;
  }

  void message(uint32_t command, bool own, const CpgHeader& header, const std::string& body = "") {
    on_sync_state_change(ctx, command, own ? 1 : 2, &header,
                         reinterpret_cast<const uint8_t*>(body.data()),
                         static_cast<uint32_t>(body.size()));
  }

  void event(uint32_t command) {
    on_sync_state_change(ctx, command, 1, nullptr, nullptr, 0);
  }

  // State and sent messages; for an exchange that ended with an error only its text.
  std::string outcome() const {
    std::string text = sync_state_name(ctx->cur_state);
    for (const std::string& sent : sent_messages())
      text += ", " + sent;
    std::string error;
    for (const std::string& line : logged(3))
      if (line.find("Sync Error: ") == 0) error = line.substr(12);
    if (ctx->cpg_result.canceled && text == "ST_DONE, MSG_LOCK_REL 7.3" &&
        error == ctx->cpg_result.reason) {
      return "fails: " + error;
    }
    return text;
  }
};

using StateMachineDeathTest = StateMachineTest;

// What a group message does in each state: from the peer, from this daemon. "!" is the error with
// the state's name behind it.
const struct {
  uint32_t command;
  const char* error;
  const char* in_state[7][2];
} kTransitions[] = {
    {MSG_LOCK_REQ,
     "",
     {{"ST_PEERLOCK", "fails: Unexpected LOCK_REQ message from self in UNLOCKED state"},
      {"ST_PEERLOCK", "ST_LISTREQ, MSG_LISTING_REQ 7.3"},
      {"ST_PEERLOCK", "ST_PEERLOCK"},
      {"ST_LISTREQ", "fails: Unexpected LOCK_REQ message from self in state ST_LISTREQ"},
      {"ST_UPDATE", "fails: Unexpected LOCK_REQ message from self in state ST_UPDATE"},
      {"fails: Unexpected LOCK_REQ message from peer in state ST_DONE", "ST_DONE"},
      {"fails: Received unexpected LOCK_REQ message in state ST_?\?\?",
       "fails: Received unexpected LOCK_REQ message in state ST_?\?\?"}}},
    // clang-format off
    {MSG_LOCK_REL, "Received early LOCK_REL message in state ",
     {{"ST_UNLOCKED", "ST_UNLOCKED"}, {"!", "!"}, {"ST_UNLOCKED", "ST_UNLOCKED"},
      {"!", "!"}, {"!", "!"}, {"ST_UNLOCKED", "ST_UNLOCKED"}, {"!", "!"}}},
    {MSG_LISTING_REQ, "Received unexpected LISTING_REQ message in state ",
     {{"!", "!"}, {"!", "!"}, {"ST_PEERLOCK, MSG_LISTING_ACK 9.2", "!"},
      {"!", "ST_LISTREQ"}, {"!", "!"}, {"!", "ST_DONE"}, {"!", "!"}}},
    {MSG_LISTING_ACK, "Received unexpected LISTING_ACK message in state ",
     {{"!", "!"}, {"!", "!"}, {"!", "ST_PEERLOCK"},
      {"ST_DONE, MSG_LOCK_REL 7.3", "!"}, {"!", "!"}, {"!", "!"}, {"!", "!"}}},
    {MSG_UPDATE_REQ, "Received unexpected UPDATE_REQ message in state ",
     {{"!", "!"}, {"!", "!"}, {"ST_PEERLOCK, MSG_UPDATE_ACK 9.3", "!"},
      {"!", "!"}, {"!", "ST_UPDATE"}, {"!", "ST_DONE"}, {"!", "!"}}},
    {MSG_UPDATE_ACK, "Received unexpected MSG_UPDATE_ACK message in state ",
     {{"!", "!"}, {"!", "!"}, {"!", "ST_PEERLOCK"},
      {"!", "!"}, {"ST_DONE, MSG_LOCK_REL 7.3", "!"}, {"!", "!"}, {"!", "!"}}},
    // clang-format on
};
const char* const kStateNames[7] = {"ST_UNLOCKED", "ST_LOCKREQ", "ST_PEERLOCK", "ST_LISTREQ",
                                    "ST_UPDATE",   "ST_DONE",    "ST_?\?\?"};

}  // namespace

TEST_F(StateMachineTest, EveryGroupMessageInEveryState) {
  for (const auto& row : kTransitions) {
    // A message of the exchange that its command belongs to.
    const bool update = row.command >= MSG_UPDATE_REQ;
    const std::string body =
        update ? update_payload(row.command == MSG_UPDATE_REQ ? PUSH_DEL_REQ : PUSH_ACK) : "";
    for (uint32_t state = ST_UNLOCKED; state <= kInvalidState; ++state) {
      for (const bool own : {false, true}) {
        SCOPED_TRACE(std::string(sync_command_name(row.command)) + (own ? " own" : " peer's"));
        const bool answer = row.command == MSG_LISTING_ACK || row.command == MSG_UPDATE_ACK;
        const uint32_t id = own || answer ? 7 : row.command == MSG_LOCK_REQ ? 0x80000001 : 9;
        const CpgHeader header = header_of(id, 3);
        enter(state);
        message(row.command, own, header, body);
        const std::string after = outcome();
        std::string expected = row.in_state[state][own];
        if (expected == "!") expected = std::string("fails: ") + row.error + kStateNames[state];
        EXPECT_EQ(after, expected);
        const bool locked = row.command == MSG_LOCK_REQ && !own && after == "ST_PEERLOCK";
        EXPECT_EQ(ctx->state_time != kLongAgo, update || locked);
        EXPECT_EQ(ctx->peer_sequence_id, row.command == MSG_UPDATE_REQ || locked ? 3u : 2u);
        EXPECT_EQ(ctx->peer_exchange_id, locked ? 0x80000001 : 9u);
        EXPECT_EQ(+ctx->rpc_stage, RPC_IDLE);
      }
    }
  }
  EXPECT_EQ(stats.n_syncs_from_peer, 1u);
  EXPECT_EQ(stats.n_syncs_from_self, 0u);
}

TEST_F(StateMachineTest, ARequestStartsAnExchangeOnlyWhenOneIsPending) {
  const struct {
    uint32_t stage;
    const char* outcome;
    uint32_t stage_after;
  } rows[] = {
      {RPC_REQUESTING, "ST_LOCKREQ, MSG_LOCK_REQ 8.0", RPC_PENDING},
      {RPC_PENDING, "ST_LOCKREQ, MSG_LOCK_REQ 8.0", RPC_PENDING},
      {RPC_LOCAL_BUSY, "ST_LOCKREQ, MSG_LOCK_REQ 8.0", RPC_LOCAL_BUSY},
      {RPC_IDLE, "fails: Unexpected RPC monitor state 'RPC_IDLE'", RPC_IDLE},
      {RPC_COMPLETE, "fails: Unexpected RPC monitor state 'RPC_COMPLETE'", RPC_COMPLETE},
      {9, "fails: Unexpected RPC monitor state 'RPC_?\?\?'", RPC_IDLE},
  };
  for (const auto& row : rows) {
    for (uint32_t state = ST_UNLOCKED; state <= kInvalidState; ++state) {
      enter(state);
      ctx->rpc_stage = row.stage;
      storage_cfg_set_result(&ctx->cpg_result, 34, "old");
      event(ON_SYNC_REQ);
      if (state == ST_UNLOCKED) {
        EXPECT_EQ(outcome(), row.outcome);
        EXPECT_EQ(+ctx->rpc_stage, row.stage_after);
        EXPECT_NE(ctx->state_time, kLongAgo);
        EXPECT_EQ(ctx->cpg_result.success, ctx->cur_state == ST_LOCKREQ);
      } else {
        EXPECT_EQ(outcome(), kStateNames[state]);
        EXPECT_EQ(+ctx->rpc_stage, row.stage);
        EXPECT_EQ(ctx->state_time, kLongAgo);
      }
    }
  }
  EXPECT_EQ(stats.n_syncs_from_self, 3u);
  EXPECT_TRUE(has_logged("Starting new exchange id=8 active=0"));

  enter(ST_UNLOCKED);
  ctx->rpc_stage = RPC_LOCAL_BUSY;
  ctx->cur_exchange_id = 0xFFFFFFFF;
  event(ON_SYNC_REQ);
  EXPECT_EQ(outcome(), "ST_LOCKREQ, MSG_LOCK_REQ 0.0") << "the id wraps";
}

TEST_F(StateMachineTest, ADepartureEndsWhateverRanWithoutAnError) {
  for (uint32_t state = ST_UNLOCKED; state <= kInvalidState; ++state) {
    enter(state);
    ctx->rpc_stage = RPC_PENDING;
    ctx->cpg_membership_flags = kSelfMember | kPeerLeft;
    event(ON_CPG_LEFT);
    EXPECT_EQ(outcome(), "ST_DONE, MSG_LOCK_REL 7.3");
    EXPECT_NE(ctx->state_time, kLongAgo);
    EXPECT_EQ(+ctx->rpc_stage, RPC_COMPLETE);
    EXPECT_EQ(ctx->rpc_result.success, 1);
    EXPECT_EQ(ctx->rpc_result.peer_present, 0x4Eu);
  }
}

TEST_F(StateMachineTest, AJoinByStateAndMembership) {
  enum Sync { kNone, kRequested };
  const char* const kFails = "fails: Unexpected CPG join notification";
  const char* const kReleased = "ST_DONE, MSG_LOCK_REL 7.3";
  const struct {
    uint32_t state, flags;
    const char* outcome;
    Sync initial_sync;  // on the active EM
  } rows[] = {
      {ST_UNLOCKED, 0x01 | 0x02 | 0x04 | 0x08, "ST_UNLOCKED", kRequested},
      {ST_UNLOCKED, 0x01 | 0x02 | 0x08, kReleased, kRequested},
      {ST_UNLOCKED, 0x01 | 0x02 | 0x04, "ST_PEERLOCK", kRequested},
      {ST_UNLOCKED, 0x01 | 0x04, "ST_UNLOCKED", kNone},
      {ST_LOCKREQ, 0x01 | 0x02 | 0x08, "ST_LOCKREQ", kNone},
      {ST_DONE, 0x01 | 0x02 | 0x08, "ST_DONE", kRequested},
      {ST_PEERLOCK, 0x01 | 0x02 | 0x08, kFails, kNone},
      {ST_LISTREQ, 0x01 | 0x02 | 0x08, kFails, kNone},
      {ST_UPDATE, 0x01 | 0x02 | 0x08, kFails, kNone},
      {kInvalidState, 0x01 | 0x02 | 0x08, kFails, kNone},
  };
  size_t announced = 0;
  for (const bool active : {false, true}) {
    set_active(active);
    for (const auto& row : rows) {
      SCOPED_TRACE(row.outcome);
      enter(row.state);
      ctx->cpg_membership_flags = row.flags;
      event(ON_CPG_JOINED);
      EXPECT_EQ(outcome(), row.outcome);
      EXPECT_NE(ctx->state_time, kLongAgo);
      EXPECT_EQ(ctx->peer_exchange_id, 9u);
      const bool requested = active && row.initial_sync == kRequested;
      announced += requested;
      EXPECT_EQ(+ctx->rpc_stage, requested ? RPC_LOCAL_BUSY : RPC_IDLE);
      EXPECT_EQ(ctx->cur_exchange_em_is_active, requested);
    }
  }
  EXPECT_EQ(logged(6),
            std::vector<std::string>(announced, "Initial sync operation to be initiated"));
  EXPECT_EQ(announced, 4u);

  enter(ST_DONE);
  ctx->rpc_stage = RPC_PENDING;
  event(ON_CPG_JOINED);
  EXPECT_EQ(+ctx->rpc_stage, RPC_PENDING) << "a caller's exchange will do";
  EXPECT_EQ(ctx->cur_exchange_em_is_active, 0);
  enter(ST_DONE);
  storage_cfg_set_result(&ctx->cpg_result, 4, "failed");
  event(ON_CPG_JOINED);
  EXPECT_EQ(+ctx->rpc_stage, RPC_IDLE) << "not after a failure";
}

TEST_F(StateMachineTest, TheInitialSyncStartsWhenTheStateIsUnlockedAgain) {
  set_active(true);
  for (const uint32_t flags : {0x0Bu, 0x07u}) {  // the peer joins; this daemon joins the peer
    enter(ST_UNLOCKED);
    ctx->cpg_membership_flags = flags;
    event(ON_CPG_JOINED);
    g_cpg.sent.clear();
    message(MSG_LOCK_REL, flags == 0x0B, header_of(7, 3));
    EXPECT_EQ(outcome(), "ST_LOCKREQ, MSG_LOCK_REQ 8.0");
    EXPECT_EQ(ctx->cur_exchange_em_is_active, 1);
  }
}

TEST_F(StateMachineTest, TheLoserOfACollisionServesAndThenTriesAgain) {
  for (const uint32_t stage : {RPC_PENDING, RPC_LOCAL_BUSY}) {
    enter(ST_UNLOCKED);
    ctx->rpc_stage = stage;
    event(ON_SYNC_REQ);
    EXPECT_EQ(outcome(), "ST_LOCKREQ, MSG_LOCK_REQ 8.0");
    message(MSG_LOCK_REQ, false, header_of(20, 0));
    EXPECT_EQ(ctx->cur_state, ST_PEERLOCK);
    message(MSG_LOCK_REQ, true, header_of(8, 0));  // too late
    message(MSG_LISTING_REQ, false, header_of(20, 0));
    message(MSG_LOCK_REL, false, header_of(20, 0));
    EXPECT_EQ(outcome(), "ST_LOCKREQ, MSG_LOCK_REQ 8.0, MSG_LISTING_ACK 20.0, MSG_LOCK_REQ 9.0");
    EXPECT_EQ(+ctx->rpc_stage, stage);
  }
  message(MSG_LOCK_REQ, true, header_of(9, 0));
  message(MSG_LOCK_REQ, false, header_of(21, 0));  // now the peer's is too late
  EXPECT_EQ(ctx->cur_state, ST_LISTREQ);
  EXPECT_EQ(ctx->peer_exchange_id, 20u);
}

TEST_F(StateMachineTest, TheEndOfAnExchangeServesTheDeferredRequest) {
  for (const uint32_t state : {ST_PEERLOCK, ST_DONE}) {
    enter(state);
    ctx->rpc_stage = RPC_REQUESTING;
    ctx->rpc_deferred = 1;
    ctx->rpc_msg = kSyncRequest;
    ctx->current_rpc_size = 2;
    storage_cfg_set_result(&ctx->cpg_result, 20, "of the exchange before");
    message(MSG_LOCK_REL, state == ST_DONE, header_of(9, 0));
    EXPECT_EQ(outcome(), "ST_LOCKREQ, MSG_LOCK_REQ 8.0");
    EXPECT_EQ(ctx->rpc_deferred, 0);
    EXPECT_EQ(ctx->cpg_result.success, 1);
    message(MSG_LOCK_REQ, true, header_of(8, 0));
    ASSERT_EQ(ctx->cur_state, ST_LISTREQ);
    EXPECT_EQ(g_cpg.sent.back().payload, std::string(2, '\0')) << "the request rides along";
  }
  enter(ST_UNLOCKED);
  ctx->rpc_deferred = 1;
  message(MSG_LOCK_REL, false, header_of(9, 0));
  EXPECT_EQ(ctx->rpc_deferred, 1) << "no exchange ended";
}

TEST_F(StateMachineTest, AloneInTheGroupAnExchangeSucceedsAtOnce) {
  enter(ST_LOCKREQ);
  ctx->rpc_stage = RPC_PENDING;
  ctx->cpg_membership_flags = kSelfMember;
  message(MSG_LOCK_REQ, true, header_of(7, 0));
  EXPECT_EQ(outcome(), "ST_DONE, MSG_LOCK_REL 7.3");
  EXPECT_EQ(ctx->rpc_result.success, 1);
  EXPECT_EQ(ctx->rpc_result.peer_present, 0x4Eu);
}

TEST_F(StateMachineTest, AWrongIdSkipsTheRest) {
  make_file(0, "gone", "x");
  const struct {
    uint32_t command, state;
    bool own;
    uint32_t update_type;
    size_t errors;
  } rows[] = {{MSG_LOCK_REQ, ST_LOCKREQ, true, PUSH_NOP, 1},
              {MSG_LISTING_REQ, ST_PEERLOCK, false, PUSH_NOP, 1},
              {MSG_LISTING_ACK, ST_LISTREQ, false, PUSH_NOP, 1},
              {MSG_UPDATE_REQ, ST_PEERLOCK, false, PUSH_DEL_REQ, 1},
              {MSG_UPDATE_ACK, ST_UPDATE, false, PULL_ACK, 2}};
  for (const auto& row : rows) {
    enter(row.state);
    const size_t before = logged(4).size();
    message(row.command, row.own, header_of(1234, 99), update_payload(row.update_type));
    EXPECT_EQ(ctx->cur_state, ST_DONE);
    EXPECT_EQ(sent_messages(), std::vector<std::string>(row.errors, "MSG_LOCK_REL 7.3"));
    EXPECT_EQ(logged(4).size(), before + 1);
  }
  EXPECT_STREQ(ctx->cpg_result.reason, "Mismatched sequence_id ID in message: expected 3, got 99");
  for (const LogLine& line : log.lines()) {
    if (line.level != 4) continue;
    EXPECT_EQ(line.text, "SKIP_IF_CANCELED triggered");
    EXPECT_EQ(line.function, "on_sync_state_change");
  }
  EXPECT_EQ(read_file(tree_path(0, "gone")), "x");
  EXPECT_EQ(stats.n_syncs_from_peer, 0u);
}

TEST_F(StateMachineTest, AnUpdateThatFailsHereIsAnsweredAndWaitsForTheTimeout) {
  make_file(0, "gone/below", "x");  // a directory cannot be unlinked
  enter(ST_PEERLOCK);
  message(MSG_UPDATE_REQ, false, header_of(9, 3), update_payload(PUSH_DEL_REQ));
  EXPECT_EQ(outcome(), "ST_PEERLOCK, MSG_UPDATE_ACK 9.3");
  const std::string reason = "Unable to delete file (Is a directory): " + tree_path(0, "gone");
  EXPECT_EQ(g_cpg.sent[0].header.result.success, 0);
  EXPECT_EQ(g_cpg.sent[0].header.result.reason, reason);
  EXPECT_EQ(ctx->cpg_result.reason, reason);
  EXPECT_EQ(logged(4), std::vector<std::string>{"SKIP_IF_CANCELED triggered"});
}

TEST_F(StateMachineTest, ThePeersFailureBecomesTheOutcome) {
  enter(ST_UPDATE);
  ctx->rpc_stage = RPC_PENDING;
  ctx->update_queue = new_file_entry(1, root_paths[1], "next");
  CpgHeader header = header_of(7, 3);
  storage_cfg_set_result(&header.result, 20, "peer's words");
  memset(header.result.reason, 'x', sizeof(header.result.reason));  // not terminated
  message(MSG_UPDATE_ACK, false, header, update_payload(PUSH_ACK));
  EXPECT_EQ(ctx->cur_state, ST_DONE);
  EXPECT_EQ(sent_messages(), std::vector<std::string>{"MSG_LOCK_REL 7.3"});
  EXPECT_EQ(logged(3), std::vector<std::string>{std::string(115, 'x')});
  EXPECT_EQ(ctx->rpc_result.reason, std::string(115, 'x'));
  EXPECT_EQ(ctx->rpc_result.success, 0);
  EXPECT_EQ(ctx->rpc_result.local_ok, 1);
  EXPECT_EQ(ctx->rpc_result.remote_ok, 0);
  EXPECT_EQ(ctx->rpc_result.peer_present, 0x59u);
  EXPECT_EQ(ctx->update_queue, nullptr);
}

TEST_F(StateMachineTest, FrozenItDropsEveryEvent) {
  g_diag_params.statemachine_stuck = 1;
  enter(ST_PEERLOCK);
  for (uint32_t command = MSG_LOCK_REQ; command <= 10; ++command)
    message(command, false, header_of(1, 1));
  EXPECT_EQ(outcome(), "ST_PEERLOCK");
  EXPECT_EQ(ctx->state_time, kLongAgo);
  EXPECT_EQ(ctx->peer_sequence_id, 2u);
  EXPECT_EQ(logged(4),
            std::vector<std::string>(11, "Simulating stuck state machine: not updating state."));
  EXPECT_EQ(logged(7).size(), 11u) << "no exit lines";
  g_diag_params.statemachine_stuck = 0;
  message(MSG_LOCK_REL, false, header_of(9, 0));
  EXPECT_EQ(outcome(), "ST_UNLOCKED");
}

TEST_F(StateMachineTest, TracesEveryEventAndTheOnesItCauses) {
  enter(ST_DONE);
  ctx->rpc_stage = RPC_LOCAL_BUSY;
  message(MSG_LOCK_REL, true, header_of(7, 0xFFFFFFFE));
  EXPECT_EQ(logged(7),
            (std::vector<std::string>{
                "Enter state change: ST_DONE      self:MSG_LOCK_REL     RPC_LOCAL_BUSY   id=7.3 "
                "hid=7.-2",
                "Enter state change: ST_UNLOCKED  self:ON_SYNC_REQ      RPC_LOCAL_BUSY   id=7.3 "
                "hid=-1.-1",
                "Starting new exchange id=8 active=0",
                "Send CPG msg: MSG_LOCK_REQ     xid=8 sid=0 payload-len=0",
                "Exit  state change: ST_LOCKREQ   self:ON_SYNC_REQ      RPC_LOCAL_BUSY   id=8.0",
                "Exit  state change: ST_LOCKREQ   self:MSG_LOCK_REL     RPC_LOCAL_BUSY   id=8.0"}));
  message(MSG_LOCK_REQ, false, header_of(1, 0));
  EXPECT_TRUE(has_logged(
      "Enter state change: ST_LOCKREQ   peer:MSG_LOCK_REQ     RPC_LOCAL_BUSY   id=8.0 hid=1.0"));
}

TEST_F(StateMachineDeathTest, WhatCanOnlyBeABugAborts) {
  for (uint32_t command = MSG_LOCK_REQ; command <= MSG_UPDATE_ACK; ++command)
    EXPECT_ABORT("EXCEPTION: cpg_header is NULL", event(command));
  for (const uint32_t command : {uint32_t{ON_TIMEOUT}, 10u, 0xFFFFFFFFu})
    EXPECT_ABORT("EXCEPTION: true = 1", event(command));
}
