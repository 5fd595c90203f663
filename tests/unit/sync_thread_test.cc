#include "redundancy_health/transport/sync_thread.h"

#include <fcntl.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/time.h>

#include <algorithm>
#include <functional>

#include "redundancy_health/frame/exit_flag.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/transport/exchange_outcome.h"
#include "tests/unit/daemon_support.h"

namespace {

// After the statements the thread's body logs `text` and ends the process.
#define EXPECT_FATAL(text, ...)                  \
  EXPECT_EXIT(                                   \
      {                                          \
        dup2(STDERR_FILENO, STDOUT_FILENO);      \
        g_flight_recorder.paused = 1;            \
        __VA_ARGS__;                             \
        sync_thread_fn(ctx);                     \
      },                                         \
      testing::KilledBySignal(SIGABRT),          \
      "<3> [a-z_]+:[0-9]+: " + literally(text) + \
          "\n<3> on_severe_error:[0-9]+: EXCEPTION: Exiting daemon due to unrecoverable error\n")

// The loop with two eventfds. The CPG one always has something to dispatch, so no pass waits.
class SyncThreadTest : public DaemonTest {
 protected:
  SyncThreadTest() {
    g_flight_recorder.paused = 1;
    g_cpg.fd = eventfd(1, 0);
    ctx->rpc_fd = eventfd(0, EFD_NONBLOCK);
  }
  ~SyncThreadTest() override {
    close(g_cpg.fd);
    close(ctx->rpc_fd);
  }

  // Runs the thread's body for `passes` passes; `at_dispatch` is called in each, with its number.
  void run(int passes, std::function<void(int)> at_dispatch = {}) {
    g_exit_daemon = 0;
    int pass = 0;
    g_cpg.on_dispatch = [&, passes, at_dispatch] {
      ++pass;
      if (at_dispatch) at_dispatch(pass);
      if (pass == passes) set_exit_daemon();
      return CS_OK;
    };
    EXPECT_EQ(sync_thread_fn(ctx), nullptr);
    EXPECT_EQ(pass, passes);
  }

  // A request that only asks for an exchange.
  void request_sync() {
    static const uint8_t message[] = {0, 0};
    ctx->rpc_stage = RPC_REQUESTING;
    ctx->rpc_msg = message;
    ctx->current_rpc_size = sizeof(message);
    ctx->state_time = get_uptime();
  }

  size_t count(const std::vector<std::string>& texts, const std::string& text) {
    return static_cast<size_t>(std::count(texts.begin(), texts.end(), text));
  }
};

using SyncThreadDeathTest = SyncThreadTest;

void interrupt_soon() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often = {{0, 50000}, {0, 50000}};
  setitimer(ITIMER_REAL, &often, nullptr);
}

int broken_pipe_end(int end) {
  int ends[2];
  if (pipe(ends) != 0) return -1;
  close(ends[1 - end]);
  return ends[end];
}

}  // namespace

TEST_F(SyncThreadTest, JoinsTheGroupAndLeavesItInTheEnd) {
  g_cpg.join_results = std::deque<cs_error_t>(99, CS_ERR_TRY_AGAIN);
  g_cpg.nodeid = 5;
  g_cpg.context = nullptr;
  g_cpg.finalize_result = CS_ERR_LIBRARY;
  ctx->update_queue = new_file_entry(0, root_paths[0], "left");
  run(1, [&](int) {
    EXPECT_EQ(ctx->cpg_initialized, 1);
    EXPECT_EQ(ctx->cpg_local_nodeid, 5u);
    EXPECT_EQ(g_cpg.context, ctx);
  });
  EXPECT_EQ(g_cpg.join_calls, 100);
  EXPECT_EQ(g_cpg.joined_group, "em-sync");
  EXPECT_TRUE(has_logged("Joined CPG group 'em-sync'"));
  EXPECT_EQ(g_cpg.model.model, CPG_MODEL_V1);
  EXPECT_EQ(g_cpg.model.cpg_deliver_fn, on_cpg_message);
  EXPECT_EQ(g_cpg.model.cpg_confchg_fn, on_cpg_config);
  EXPECT_EQ(g_cpg.model.cpg_totem_confchg_fn, nullptr);
  EXPECT_EQ(g_cpg.model.flags, 0u);
  EXPECT_EQ(g_cpg.finalize_calls, 1);
  EXPECT_EQ(ctx->cpg_initialized, 0);
  EXPECT_EQ(ctx->update_queue, nullptr);
  EXPECT_EQ(logged(3), std::vector<std::string>{"cpg_finalize failed: 2"}) << "not fatal";
}

TEST_F(SyncThreadDeathTest, EndsTheProcessWhenItCannotStart) {
  EXPECT_FATAL("cpg_initialize failed with result 2", g_cpg.initialize_result = CS_ERR_LIBRARY);
  EXPECT_FATAL("cpg_join failed with result 14", g_cpg.join_results = {CS_ERR_EXIST});
  EXPECT_FATAL("cpg_join failed with result 6",
               g_cpg.join_results = std::deque<cs_error_t>(100, CS_ERR_TRY_AGAIN));
  EXPECT_FATAL("cpg_context_set failed with result 9",
               g_cpg.context_set_result = CS_ERR_BAD_HANDLE);
  EXPECT_FATAL("cpg_local_get failed with result 9", g_cpg.local_get_result = CS_ERR_BAD_HANDLE);
  EXPECT_FATAL("cpg_fd_get failed: 9", g_cpg.fd_get_result = CS_ERR_BAD_HANDLE);
}

TEST_F(SyncThreadDeathTest, EndsTheProcessWhenItCannotGoOn) {
  EXPECT_FATAL(
      "cpg_dispatch failed: 2", g_cpg.on_dispatch = [] { return CS_ERR_LIBRARY; });
  EXPECT_FATAL("Call to poll failed: Interrupted system call", interrupt_soon();
               g_cpg.fd = ctx->rpc_fd);
  // Readable by poll, but not by read.
  EXPECT_FATAL("Read from eventfd failed: Is a directory", ctx->rpc_fd = open("/", O_RDONLY));
  EXPECT_FATAL(
      "Detected long sync state timeout.", ctx->cur_state = ST_LISTREQ; g_cpg.on_dispatch = [&] {
        ctx->state_time = get_uptime() - 46;
        return CS_OK;
      });
}

TEST_F(SyncThreadDeathTest, EndsTheProcessWhenTheCpgServiceHasGone) {
  const std::string lost = "CPG connection lost: revents=";
  EXPECT_FATAL(lost + "0x10", g_cpg.fd = broken_pipe_end(0));
  EXPECT_FATAL(lost + "0x8", g_cpg.fd = broken_pipe_end(1));
  EXPECT_FATAL(lost + "0x20", g_cpg.fd = 9999);
}

// A caller may be ahead of the first pass, and its wake-up still behind.
TEST_F(SyncThreadDeathTest, ARequestBeforeTheFirstPassHasNotTimedOut) {
  ctx->rpc_stage = RPC_REQUESTING;
  EXPECT_EXIT(
      {
        run(1);
        _exit(logged(3).empty() ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(SyncThreadDeathTest, ACallbackWithoutItsContextAborts) {
  const std::string message = message_bytes(MSG_LOCK_REQ, 1, 0);
  EXPECT_ABORT("EXCEPTION: rc == CS_OK = 0", g_cpg.context_get_result = CS_ERR_BAD_HANDLE;
               deliver_from_peer(message));
  EXPECT_ABORT("EXCEPTION: rc == CS_OK = 0", g_cpg.context_get_result = CS_ERR_BAD_HANDLE;
               const cpg_name group = {};
               on_cpg_config(77, &group, nullptr, 0, nullptr, 0, nullptr, 0));
}

TEST_F(SyncThreadTest, AWakeUpIsServedWhenUnlockedAndDeferredOtherwise) {
  request_sync();
  for (int i = 0; i < 3; ++i)
    eventfd_write(ctx->rpc_fd, 1);
  run(2);
  EXPECT_EQ(sent_messages(), std::vector<std::string>{"MSG_LOCK_REQ 1.0"}) << "once for all writes";
  EXPECT_EQ(ctx->rpc_deferred, 0);
  eventfd_t value;
  EXPECT_NE(eventfd_read(ctx->rpc_fd, &value), 0) << "the counter was taken";

  for (const uint32_t state : {ST_LOCKREQ, ST_PEERLOCK, ST_LISTREQ, ST_UPDATE, ST_DONE}) {
    g_cpg.sent.clear();
    request_sync();
    ctx->cur_state = state;
    ctx->rpc_deferred = 0;
    eventfd_write(ctx->rpc_fd, 1);
    run(1);
    EXPECT_EQ(ctx->rpc_deferred, 1) << state;
    EXPECT_EQ(sent_messages(), std::vector<std::string>()) << state;
    EXPECT_EQ(ctx->cur_state, state);
  }
}

TEST_F(SyncThreadTest, TimeIsMeasuredOnlyWhileSomethingIsInProgress) {
  const struct {
    uint32_t state, stage;
    int32_t age;  // of state_time, -1: unknown
    bool timed_out, refreshed;
  } rows[] = {
      {ST_UNLOCKED, RPC_IDLE, 1000, false, true}, {ST_UNLOCKED, RPC_IDLE, -1, false, true},
      {ST_PEERLOCK, RPC_IDLE, 8, false, false},   {ST_PEERLOCK, RPC_IDLE, -1, false, false},
      {ST_PEERLOCK, RPC_IDLE, 12, true, false},   {ST_UNLOCKED, RPC_LOCAL_BUSY, 12, true, false},
  };
  size_t timeouts = 0;
  for (const auto& row : rows) {
    const int32_t before = row.age == -1 ? -1 : get_uptime() - row.age;
    ctx->cur_state = row.state;
    ctx->rpc_stage = row.stage;
    reset_cpg_result(ctx);
    run(1, [&](int) { ctx->state_time = before; });
    timeouts += row.timed_out;
    EXPECT_EQ(count(logged(3), "Detected short sync state timeout"), timeouts);
    EXPECT_STREQ(ctx->cpg_result.reason, row.timed_out ? "Operation timed out" : "");
    EXPECT_EQ(ctx->state_time != before, row.refreshed);
  }
}

TEST_F(SyncThreadTest, AStalledExchangeTimesOutAgainAndAgain) {
  ctx->cur_state = ST_UPDATE;
  ctx->rpc_stage = RPC_PENDING;
  run(2, [&](int pass) {
    if (pass == 1) ctx->state_time = get_uptime() - 12;
    EXPECT_EQ(ctx->cur_state, pass == 1 ? ST_UPDATE : ST_DONE);
    EXPECT_EQ(+ctx->rpc_stage, pass == 1 ? RPC_PENDING : RPC_COMPLETE);
  });
  EXPECT_EQ(logged(3),
            (std::vector<std::string>{
                "Detected short sync state timeout", "Sync Error: Operation timed out",
                "Detected short sync state timeout", "Sync Error: Operation timed out"}));
  EXPECT_EQ(sent_messages(), (std::vector<std::string>{"MSG_LOCK_REL 0.0", "MSG_LOCK_REL 0.0"}));
}

TEST_F(SyncThreadTest, ADeferredRequestIsAnsweredWhenTheReleaseIsLost) {
  request_sync();
  eventfd_write(ctx->rpc_fd, 1);
  ctx->cur_state = ST_PEERLOCK;
  run(2, [&](int pass) {
    if (pass == 1) ctx->state_time = get_uptime() - 12;
    EXPECT_EQ(+ctx->rpc_stage, RPC_REQUESTING) << "it may yet be served";
  });
  EXPECT_EQ(+ctx->rpc_stage, RPC_COMPLETE);
  EXPECT_STREQ(ctx->rpc_result.reason, "Operation timed out");
  EXPECT_EQ(ctx->rpc_result.local_ok, 0);
}

TEST_F(SyncThreadTest, ResyncsFourPassesAfterAFailureAndThenEveryHundred) {
  set_active(true);
  const auto fail = [&] {
    end_exchange_error(ctx, "failed");
    deliver_own(g_cpg.sent.back());
    g_cpg.sent.clear();
    EXPECT_EQ(ctx->cur_state, ST_UNLOCKED);
  };
  std::vector<int> attempts;  // passes before whose dispatch a resync was attempted
  run(107, [&](int pass) {
    if (sent_messages() ==
        std::vector<std::string>{"MSG_LOCK_REQ " + std::to_string(attempts.size() + 1) + ".0"}) {
      attempts.push_back(pass);
      EXPECT_EQ(+ctx->rpc_stage, RPC_LOCAL_BUSY);
      EXPECT_EQ(ctx->cur_exchange_em_is_active, 1);
      EXPECT_EQ(ctx->resync_countdown, 100);
      fail();
    }
    if (pass == 1) fail();
  });
  EXPECT_EQ(attempts, (std::vector<int>{6, 106}));
  EXPECT_EQ(logged(4), std::vector<std::string>(
                           2, "Attempting to resync after delay because of previous sync error."));
}

TEST_F(SyncThreadTest, AResyncWaitsForTheRequestAndIsNotTheStandbys) {
  ctx->resync_countdown = 2;
  std::vector<int32_t> countdowns;
  run(4, [&](int) { countdowns.push_back(ctx->resync_countdown); });
  EXPECT_EQ(countdowns, (std::vector<int32_t>{2, 1, 0, -1})) << "on standby";
  EXPECT_EQ(ctx->resync_countdown, -1);
  EXPECT_EQ(sent_messages(), std::vector<std::string>());

  set_active(true);
  ctx->resync_countdown = 1;
  ctx->rpc_stage = RPC_COMPLETE;
  ctx->state_time = get_uptime();
  run(3, [&](int pass) {
    if (pass == 3) ctx->rpc_stage = RPC_IDLE;
    EXPECT_EQ(ctx->resync_countdown, 1);
    EXPECT_EQ(sent_messages(), std::vector<std::string>());
  });
  EXPECT_EQ(sent_messages(), std::vector<std::string>{"MSG_LOCK_REQ 1.0"});
  EXPECT_EQ(ctx->resync_countdown, 100);
}

TEST_F(SyncThreadTest, TellsThisProcessFromEveryOther) {
  const auto self = static_cast<uint32_t>(getpid());
  const cpg_address addresses[] = {{5, self, 0}, {5, self + 1, 0}, {6, self, 0}};
  EXPECT_EQ(compute_membership_flags(5, addresses, 0, 0x10, 0x20), 0u);
  EXPECT_EQ(compute_membership_flags(5, addresses, 1, 0x10, 0x20), 0x10u);
  EXPECT_EQ(compute_membership_flags(5, addresses + 1, 1, 0x10, 0x20), 0x20u);
  EXPECT_EQ(compute_membership_flags(5, addresses + 2, 1, 0x10, 0x20), 0x20u);
  EXPECT_EQ(compute_membership_flags(5, addresses, 3, 0x10, 0x20), 0x30u);

  // A lock request from itself is out of place, the peer's locks.
  const struct {
    uint32_t local_nodeid, sender, pid;
    bool own;
  } rows[] = {{1, 1, self, true},      {1, 1, self + 1, false}, {1, 2, self, false},
              {5, 5, self, true},      {5, 5, self + 1, false}, {5, 1, self, false},
              {2, 2, self + 1, false}, {2, 1, self + 1, false}};
  std::string message = message_bytes(MSG_LOCK_REQ, 1, 0);
  const cpg_name group = {7, "em-sync"};
  for (const auto& row : rows) {
    ctx->cur_state = ST_UNLOCKED;
    ctx->cpg_local_nodeid = row.local_nodeid;
    on_cpg_message(77, &group, row.sender, row.pid, message.data(), message.size());
    EXPECT_EQ(ctx->cur_state, row.own ? ST_DONE : ST_PEERLOCK)
        << row.local_nodeid << " " << row.sender;
  }
}

TEST_F(SyncThreadTest, AConfigurationChangeReportsDeparturesBeforeJoins) {
  const auto self = static_cast<uint32_t>(getpid());
  const cpg_address me = {1, self, 0};
  const cpg_address peer = {2, self, 0};
  const cpg_address both[] = {me, peer};
  cpg_name group = {7, "em-sync"};
  ctx->cpg_membership_flags = 0xFF;
  on_cpg_config(77, &group, both, 2, &peer, 1, &peer, 1);
  EXPECT_EQ(ctx->cpg_membership_flags, 0x2Bu);
  on_cpg_config(77, &group, &me, 1, &me, 1, both, 2);
  EXPECT_EQ(ctx->cpg_membership_flags, 0x1Du);
  on_cpg_config(77, &group, both, 2, nullptr, 0, nullptr, 0);
  EXPECT_EQ(ctx->cpg_membership_flags, 0x03u);
  memset(group.value, 'g', sizeof(group.value));  // not terminated
  on_cpg_config(77, &group, nullptr, 0, nullptr, 0, nullptr, 0);

  std::vector<std::string> events;
  for (const std::string& line : logged(7)) {
    if (line.find("Enter") == 0) events.push_back(line.substr(33, 24));
    if (line.find("CPG config") == 0) events.push_back(line);
  }
  EXPECT_EQ(events, (std::vector<std::string>{
                        "self:ON_CPG_LEFT      RP", "self:ON_CPG_JOINED    RP",
                        "CPG config change [em-sync]: flags=2b", "self:ON_CPG_LEFT      RP",
                        "self:ON_CPG_JOINED    RP", "CPG config change [em-sync]: flags=1d",
                        "CPG config change [em-sync]: flags=03",
                        "CPG config change [" + std::string(128, 'g') + "]: flags=00"}));
}
