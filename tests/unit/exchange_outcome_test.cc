#include "redundancy_health/transport/exchange_outcome.h"

#include "tests/unit/daemon_support.h"

using ExchangeOutcomeTest = DaemonTest;

TEST_F(ExchangeOutcomeTest, CountsWhatIsAFaultAndReportsALastingOne) {
  enum Role { kStandby, kActive };
  enum Peer { kAbsent, kPresent };
  struct {
    Role role;
    Peer peer;
    uint32_t flags;
    bool recorded;  // a failure was recorded before
    int32_t errors_before, countdown_before;
    int32_t errors_after, countdown_after;
    uint32_t status;  // 0: no event
  } const rows[] = {
      {kActive, kPresent, 0, false, 3, 50, 0, -1, 1},
      {kActive, kPresent, 4, false, 0, -1, 1, 5, 1},
      {kActive, kPresent, 4, false, 1, 3, 2, 3, 4},
      {kActive, kPresent, 4, false, 7, 0, 8, 0, 4},
      {kActive, kPresent, 0, true, 1, -1, 2, 5, 4},
      {kActive, kPresent, 18, false, 0, -1, 1, 5, 1},
      {kActive, kAbsent, 4, false, 1, 9, 1, 9, 0},
      {kActive, kAbsent, 0, false, 1, 9, 1, 9, 0},
      {kActive, kPresent, 34, false, 1, 9, 1, 9, 0},
      {kActive, kPresent, 42, false, 1, 9, 1, 9, 0},
      {kActive, kPresent, 44, false, 1, 9, 1, 9, 0},
      {kActive, kPresent, 0x24, false, 0, -1, 1, 5, 1},
      {kStandby, kPresent, 4, false, 3, 50, 0, -1, 0},
      {kStandby, kAbsent, 0, false, 3, 50, 0, -1, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    set_active(row.role == kActive);
    unlink("/var/run/em/events/0x80000702");
    g_cpg.sent.clear();
    g_flight_recorder.paused = 0;
    ctx->cur_state = ST_UPDATE;
    ctx->cpg_membership_flags = row.peer == kPresent ? kSelfMember | kPeerMember : kSelfMember;
    ctx->consecutive_errors = row.errors_before;
    ctx->resync_countdown = row.countdown_before;
    storage_cfg_set_result(&ctx->cpg_result, row.recorded ? 20 : 0, nullptr);
    ctx->update_queue = new_file_entry(0, root_paths[0], "left");
    end_exchange_full(ctx, row.flags, "text %d", 7);
    EXPECT_STREQ(ctx->cpg_result.reason, row.flags == 0 ? "" : "text 7");
    EXPECT_EQ(ctx->consecutive_errors, row.errors_after);
    EXPECT_EQ(ctx->resync_countdown, row.countdown_after);
    EXPECT_EQ(fault_status(), row.status);
    EXPECT_EQ(ctx->cpg_result.peer_present, row.peer == kPresent ? 0x59u : 0x4Eu);
    EXPECT_EQ(ctx->cpg_result.success, row.flags == 0 && !row.recorded);
    EXPECT_EQ(g_flight_recorder.paused, row.flags != 0 && (row.flags & 8) == 0) << "no benign one";
    const bool released = (row.flags & 0x20) == 0;
    EXPECT_EQ(ctx->cur_state, released ? ST_DONE : ST_UPDATE);
    EXPECT_EQ(g_cpg.sent.size(), released ? 1u : 0u);
    EXPECT_EQ(ctx->update_queue, nullptr);
  }
}

TEST_F(ExchangeOutcomeTest, TheEventIsItsBytesAndItsFailureHasNoEffect) {
  set_active(true);
  write_file("/var/run/em/number", "2\n");
  ctx->consecutive_errors = 1;
  end_exchange_error(ctx, "x");
  EXPECT_EQ(read_file("/var/run/em/events/0x80000702"),
            std::string("\x01\0\0\0\x18\0\x0F\0\x04\0\0\0", 12) + std::string(1024, '\0'));
  fs::remove_all("/var/run/em/events");
  write_file("/var/run/em/events", "no directory");
  end_exchange_error(ctx, "x");
  EXPECT_EQ(ctx->cur_state, ST_DONE);
}

// A request that was not applied, announced or not, gets no success of another exchange.
TEST_F(ExchangeOutcomeTest, HandsTheOutcomeToWhoeverWaitsForIt) {
  const struct {
    uint32_t flags, before;
    bool deferred;
    uint32_t after;
    const char* reason;
    int local_ok;
  } rows[] = {{4, RPC_IDLE, false, RPC_IDLE, "preset", 0},
              {4, RPC_REQUESTING, false, RPC_COMPLETE, "outcome", 0},
              {34, RPC_REQUESTING, false, RPC_COMPLETE, "outcome", 0},
              {4, RPC_REQUESTING, true, RPC_REQUESTING, "preset", 0},
              {0, RPC_REQUESTING, true, RPC_REQUESTING, "preset", 0},
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
