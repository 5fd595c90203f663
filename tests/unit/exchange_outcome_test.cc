#include "redundancy_health/transport/exchange_outcome.h"

#include <string.h>

#include "redundancy_health/frame/flight_recorder.h"
#include "tests/unit/daemon_support.h"

namespace {

constexpr char kBanner[] =
    "===== CLUSTER SYNC DAEMON ERROR DETECTED. Flight recorder dump follows. =====";

bool is_recorded(const std::string& text) {
  const FlightRecorderEntry* entry;
  SIMPLEQ_FOREACH(entry, &g_flight_recorder.entries, next) {
    if (strstr(entry->text, text.c_str()) != nullptr) return true;
  }
  return false;
}

}  // namespace

using ExchangeOutcomeTest = DaemonTest;

TEST_F(ExchangeOutcomeTest, CountsWhatIsAFaultAndReportsALastingOne) {
  enum Role { kStandby, kActive };
  enum Peer { kAbsent, kPresent };
  struct {
    const char* name;
    Role role;
    Peer peer;
    uint32_t flags;
    bool recorded;  // a failure was recorded before
    int32_t errors_before, countdown_before;
    int32_t errors_after, countdown_after;
    uint32_t status;  // 0: no event
  } const rows[] = {
      {"success", kActive, kPresent, 0, false, 0, -1, 0, -1, 1},
      {"success after failures", kActive, kPresent, 0, false, 3, 50, 0, -1, 1},
      {"first failure", kActive, kPresent, 4, false, 0, -1, 1, 5, 1},
      {"second failure", kActive, kPresent, 4, false, 1, 3, 2, 3, 4},
      {"later failure, countdown at 0", kActive, kPresent, 4, false, 7, 0, 8, 0, 4},
      {"failure recorded before", kActive, kPresent, 0, true, 1, -1, 2, 5, 4},
      {"code 18", kActive, kPresent, 18, false, 0, -1, 1, 5, 1},
      {"peer absent, failure", kActive, kAbsent, 4, false, 1, 9, 1, 9, 0},
      {"peer absent, success", kActive, kAbsent, 0, false, 1, 9, 1, 9, 0},
      {"refused, 34", kActive, kPresent, 34, false, 1, 9, 1, 9, 0},
      {"refused, 42", kActive, kPresent, 42, false, 1, 9, 1, 9, 0},
      {"refused, 44", kActive, kPresent, 44, false, 1, 9, 1, 9, 0},
      {"no exchange, but counted", kActive, kPresent, 0x24, false, 0, -1, 1, 5, 1},
      {"benign", kActive, kPresent, 0x0C, false, 1, 9, 1, 9, 0},
      {"standby, failure", kStandby, kPresent, 4, false, 3, 50, 0, -1, 0},
      {"standby, success, peer absent", kStandby, kAbsent, 0, false, 3, 50, 0, -1, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    set_active(row.role == kActive);
    unlink("/var/run/em/events/0x80000702");
    g_cpg.sent.clear();
    ctx->cur_state = ST_UPDATE;
    ctx->cpg_membership_flags = row.peer == kPresent ? kSelfMember | kPeerMember : kSelfMember;
    ctx->consecutive_errors = row.errors_before;
    ctx->resync_countdown = row.countdown_before;
    storage_cfg_set_result(&ctx->cpg_result, row.recorded ? 20 : 0, row.recorded ? "old" : nullptr);
    ctx->update_queue = new_file_entry(0, root_paths[0], "left");
    if (row.flags == 0) {
      end_exchange_full(ctx, row.flags, nullptr);
    } else {
      end_exchange_full(ctx, row.flags, "text %d", 7);
      EXPECT_STREQ(ctx->cpg_result.reason, "text 7");
    }
    EXPECT_EQ(ctx->consecutive_errors, row.errors_after);
    EXPECT_EQ(ctx->resync_countdown, row.countdown_after);
    EXPECT_EQ(fault_status(), row.status);
    EXPECT_EQ(ctx->cpg_result.peer_present, row.peer == kPresent ? 0x59u : 0x4Eu);
    EXPECT_EQ(ctx->cpg_result.success, row.flags == 0 && !row.recorded);
    const bool released = (row.flags & 0x20) == 0;
    EXPECT_EQ(ctx->cur_state, released ? ST_DONE : ST_UPDATE);
    EXPECT_EQ(g_cpg.sent.size(), released ? 1u : 0u);
    EXPECT_EQ(ctx->update_queue, nullptr);
  }
  for (const char* line : {"consecutive errors=1", "consecutive errors=2", "consecutive errors=8"})
    EXPECT_TRUE(has_logged(std::string("Replication failed, ") + line));
}

TEST_F(ExchangeOutcomeTest, TheEventIsItsBytes) {
  set_active(true);
  end_exchange_error(ctx, "x");
  const std::string zeros(1024, '\0');
  EXPECT_EQ(read_file("/var/run/em/events/0x80000702"),
            std::string("\x02\0\0\0\x18\0\x0F\0\x01\0\0\0", 12) + zeros);
  write_file("/var/run/em/number", "2\n");
  end_exchange_error(ctx, "x");
  EXPECT_EQ(read_file("/var/run/em/events/0x80000702"),
            std::string("\x01\0\0\0\x18\0\x0F\0\x04\0\0\0", 12) + zeros);
}

TEST_F(ExchangeOutcomeTest, AnEventThatCannotBeSentIsOnlyLogged) {
  set_active(true);
  write_file("/var/run/em/events", "no directory");
  g_flight_recorder.max_entries = 500;
  end_exchange_error(ctx, "x");
  end_exchange_full(ctx, 0, nullptr);
  const char* const lines[] = {
      "Replication failed, consecutive errors=1",
      "Failed to send data replication fault event (new status: 1) for EM 2"};
  for (const char* line : lines) {
    EXPECT_TRUE(has_logged(line)) << line;
    EXPECT_FALSE(is_recorded(line)) << "for the platform log alone";
  }
  EXPECT_TRUE(is_recorded("Sync Error: x"));
  EXPECT_EQ(ctx->cur_state, ST_DONE);
}

TEST_F(ExchangeOutcomeTest, OnlyABenignErrorLeavesTheFlightRecorderAlone) {
  end_exchange_full(ctx, 42, "expected");
  EXPECT_TRUE(has_logged("Sync Error: expected"));
  EXPECT_FALSE(has_logged(kBanner));
  end_exchange_full(ctx, 34, "not expected");
  EXPECT_TRUE(has_logged("Sync Error: not expected"));
  EXPECT_TRUE(has_logged(kBanner));
}

TEST_F(ExchangeOutcomeTest, HandsTheOutcomeToWhoeverWaitsForIt) {
  const struct {
    uint32_t before, after;
    bool copied;
  } rows[] = {{RPC_IDLE, RPC_IDLE, false},       {RPC_REQUESTING, RPC_COMPLETE, true},
              {RPC_PENDING, RPC_COMPLETE, true}, {RPC_COMPLETE, RPC_COMPLETE, false},
              {RPC_LOCAL_BUSY, RPC_IDLE, false}, {99, RPC_IDLE, false}};
  for (const uint32_t flags : {4u, 34u}) {
    for (const auto& row : rows) {
      SCOPED_TRACE(row.before);
      ctx->rpc_stage = row.before;
      storage_cfg_set_result(&ctx->rpc_result, 2, "preset");
      end_exchange_full(ctx, flags, "the outcome");
      EXPECT_EQ(+ctx->rpc_stage, row.after);
      EXPECT_STREQ(ctx->rpc_result.reason, row.copied ? "the outcome" : "preset");
      const bool applied = row.before != RPC_REQUESTING;
      EXPECT_EQ(ctx->rpc_result.local_ok, row.copied && applied && flags == 4);
      ctx->rpc_result.local_ok = ctx->cpg_result.local_ok;
      EXPECT_EQ(memcmp(&ctx->rpc_result, &ctx->cpg_result, 128) == 0, row.copied);
    }
  }
}

// Announced or not yet: a request that was not applied gets no success of another exchange.
TEST_F(ExchangeOutcomeTest, ASuccessAnswersOnlyTheRequestOfItsOwnExchange) {
  for (const bool deferred : {false, true}) {
    ctx->rpc_stage = RPC_REQUESTING;
    ctx->rpc_deferred = deferred;
    end_exchange_full(ctx, 0, nullptr);
    EXPECT_EQ(+ctx->rpc_stage, RPC_REQUESTING);
  }
}

TEST_F(ExchangeOutcomeTest, AFailingReleaseDoesNotEndTheExchangeAgain) {
  set_active(true);
  g_cpg.mcast_results = {CS_ERR_LIBRARY};
  ctx->rpc_stage = RPC_PENDING;
  end_exchange_full(ctx, 0, nullptr);
  EXPECT_EQ(g_cpg.mcast_calls, 1);
  EXPECT_EQ(ctx->cur_state, ST_DONE);
  EXPECT_EQ(fault_status(), 1u);
  EXPECT_EQ(ctx->consecutive_errors, 0);
  EXPECT_STREQ(ctx->rpc_result.reason, "Call to cpg_mcast_joined failed with code 2");
}
