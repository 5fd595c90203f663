#include "redundancy_health/transport/exchange_outcome.h"

#include "tests/unit/daemon_support.h"

using ExchangeTest = DaemonTest;

TEST_F(ExchangeTest, AFullQueueIsWaitedForUpToAHundredCalls) {
  for (const size_t refusals : {99u, 100u}) {
    g_cpg.mcast_calls = 0;
    g_cpg.mcast_results.assign(refusals, CS_ERR_TRY_AGAIN);
    reset_cpg_result(ctx);
    send_cpg_command(ctx, MSG_LOCK_REQ, 0, nullptr, nullptr, 0);
    EXPECT_EQ(g_cpg.mcast_calls, refusals == 99 ? 100 : 101) << "and the release";
    EXPECT_STREQ(ctx->cpg_result.reason,
                 refusals == 99 ? "" : "Call to cpg_mcast_joined failed with code 6");
  }
}

TEST_F(ExchangeTest, AFailedSendNeverHidesAnEarlierErrorNorFailsTheReleaseTwice) {
  for (const bool injected : {false, true}) {
    g_cpg.mcast_calls = 0;
    g_cpg.mcast_results = {CS_ERR_LIBRARY};
    g_diag_params.cpg_send_fail = injected;
    ctx->rpc_stage = RPC_PENDING;
    storage_cfg_set_result(&ctx->cpg_result, injected ? 0 : 20, "first");
    send_cpg_command(ctx, MSG_UPDATE_REQ, 0, nullptr, nullptr, 0);
    EXPECT_STREQ(ctx->rpc_result.reason,
                 injected ? "Call to cpg_mcast_joined failed with code 21" : "first");
    EXPECT_EQ(g_cpg.mcast_calls, injected ? 0 : 2);
    EXPECT_EQ(ctx->cur_state, ST_DONE);
  }
  g_diag_params.cpg_send_fail = 0;
  set_active(true);
  reset_cpg_result(ctx);
  end_exchange_full(ctx, 0, nullptr);
  EXPECT_EQ(fault_status(), 1u) << "the failed release is no failure";
}

TEST_F(ExchangeTest, AcceptsOnlyMessagesOfTheProtocol) {
  const std::string good = message_bytes(MSG_LOCK_REQ, 8, 2);
  for (const std::string& bytes :
       {std::string(), good.substr(0, 147), "x" + good.substr(1), message_bytes(6, 8, 2),
        message_bytes(9, 8, 2), message_bytes(0xFFFFFFFF, 8, 2)}) {
    g_cpg.sent.clear();
    ctx->cur_state = ST_PEERLOCK;
    deliver_from_peer(bytes);
    EXPECT_STREQ(ctx->cpg_result.reason, "Invalid CPG message received");
    EXPECT_EQ(sent_messages(), Lines{"MSG_LOCK_REL 0.0"});
  }
}

TEST_F(ExchangeTest, CountsWhatIsAFaultAndReportsALastingOne) {
  const struct {
    bool active, peer;
    uint32_t flags;
    bool recorded;  // a failure was recorded before
    int32_t errors, countdown;
    std::string after;  // errors, countdown, status of the event (0: none)
  } rows[] = {
      {true, true, 0, false, 3, 50, "0 -1 1"},   {true, true, 4, false, 0, -1, "1 5 1"},
      {true, true, 4, false, 1, 3, "2 3 4"},     {true, true, 0, true, 1, -1, "2 5 4"},
      {true, false, 4, false, 1, 9, "1 9 0"},    {true, true, 34, false, 1, 9, "1 9 0"},
      {true, true, 42, false, 1, 9, "1 9 0"},    {true, true, 44, false, 1, 9, "1 9 0"},
      {true, true, 0x24, false, 0, -1, "1 5 1"}, {false, true, 4, false, 3, 50, "0 -1 0"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    set_active(row.active);
    unlink("/var/run/em/events/0x80000702");
    g_cpg.sent.clear();
    g_flight_recorder.paused = 0;
    ctx->cur_state = ST_UPDATE;
    ctx->cpg_membership_flags = row.peer ? kSelfMember | kPeerMember : kSelfMember;
    ctx->consecutive_errors = row.errors;
    ctx->resync_countdown = row.countdown;
    storage_cfg_set_result(&ctx->cpg_result, row.recorded ? 20 : 0, nullptr);
    ctx->update_queue = new_file_entry(0, root_paths[0], "left");
    end_exchange_full(ctx, row.flags, "text %d", 7);
    EXPECT_EQ(std::to_string(ctx->consecutive_errors) + " " +
                  std::to_string(ctx->resync_countdown) + " " + std::to_string(fault_status()),
              row.after);
    EXPECT_STREQ(ctx->cpg_result.reason, row.flags == 0 ? "" : "text 7");
    EXPECT_EQ(ctx->cpg_result.peer_present, row.peer ? 0x59u : 0x4Eu);
    EXPECT_EQ(g_flight_recorder.paused, row.flags != 0 && (row.flags & 8) == 0) << "no benign one";
    const bool released = (row.flags & 0x20) == 0;
    EXPECT_EQ(ctx->cur_state, released ? ST_DONE : ST_UPDATE);
    EXPECT_EQ(g_cpg.sent.size(), released);
    EXPECT_EQ(ctx->update_queue, nullptr);
  }
}

TEST_F(ExchangeTest, TheEventIsItsBytes) {
  set_active(true);
  write_file("/var/run/em/number", "2\n");
  ctx->consecutive_errors = 1;
  end_exchange_error(ctx, "x");
  EXPECT_EQ(read_file("/var/run/em/events/0x80000702"),
            std::string("\x01\0\0\0\x18\0\x0F\0\x04\0\0\0", 12) + std::string(1024, '\0'));
}

// A request that was not applied, announced or not, gets no success of another exchange.
TEST_F(ExchangeTest, HandsTheOutcomeToWhoeverWaitsForIt) {
  const struct {
    uint32_t flags, before;
    bool deferred;
    uint32_t after;
    const char* reason;
    int local_ok;
  } rows[] = {{4, RPC_IDLE, false, RPC_IDLE, "preset", 0},
              {4, RPC_REQUESTING, false, RPC_COMPLETE, "outcome", 0},
              {4, RPC_REQUESTING, true, RPC_REQUESTING, "preset", 0},
              {0, RPC_REQUESTING, false, RPC_REQUESTING, "preset", 0},
              {4, RPC_PENDING, false, RPC_COMPLETE, "outcome", 1},
              {0, RPC_PENDING, false, RPC_COMPLETE, "", 1},
              {4, RPC_COMPLETE, false, RPC_COMPLETE, "preset", 0},
              {4, RPC_LOCAL_BUSY, false, RPC_IDLE, "preset", 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    ctx->rpc_stage = row.before;
    ctx->rpc_deferred = row.deferred;
    reset_cpg_result(ctx);
    storage_cfg_set_result(&ctx->rpc_result, 2, "preset");
    end_exchange_full(ctx, row.flags, "outcome");
    EXPECT_EQ(+ctx->rpc_stage, row.after);
    EXPECT_STREQ(ctx->rpc_result.reason, row.reason);
    EXPECT_EQ(ctx->rpc_result.local_ok, row.local_ok);
  }
}
