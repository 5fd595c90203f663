#include "redundancy_health/transport/sync_thread.h"

#include <sys/eventfd.h>

#include "redundancy_health/transport/exchange_outcome.h"
#include "tests/unit/daemon_support.h"

namespace {

// The loop with two eventfds. The CPG one is always readable, so no pass waits.
class SyncThreadTest : public DaemonTest {
 protected:
  SyncThreadTest() {
    g_cpg.fd = eventfd(1, 0);
    ctx->rpc_fd = eventfd(0, EFD_NONBLOCK);
  }
  ~SyncThreadTest() override {
    close(g_cpg.fd);
    close(ctx->rpc_fd);
  }

  // Runs the thread's body for `passes` passes and calls `at_dispatch` in each with its number.
  void run(
      int passes, std::function<void(int)> at_dispatch = [](int) {}) {
    g_exit_daemon = 0;
    int pass = 0;
    g_cpg.on_dispatch = [&, passes, at_dispatch] {
      at_dispatch(++pass);
      if (pass == passes) set_exit_daemon();
      return CS_OK;
    };
    EXPECT_EQ(sync_thread_fn(ctx), nullptr);
    EXPECT_EQ(pass, passes);
  }
};

using SyncThreadDeathTest = SyncThreadTest;

}  // namespace

TEST_F(SyncThreadTest, JoinsTheGroupAndLeavesItInTheEnd) {
  g_cpg.join_results = std::deque<cs_error_t>(99, CS_ERR_TRY_AGAIN);
  ctx->update_queue = new_file_entry(0, root_paths[0], "left");
  run(1);
  EXPECT_EQ(g_cpg.joined_group, "em-sync");
  EXPECT_TRUE(g_cpg.finalized);
  EXPECT_EQ(ctx->update_queue, nullptr);
}

TEST_F(SyncThreadDeathTest, EndsTheProcessWhenItCannotStartOrGoOn) {
  const auto expect_fatal = [&](const std::string& text, const std::function<void()>& prepare) {
    EXPECT_ABORT(
        "<3> [a-z_]+:[0-9]+: " + text + "(.|\n)*<3> on_severe_error:[0-9]+: EXCEPTION: Exit",
        prepare();
        sync_thread_fn(ctx));
  };
  for (const auto& [call, text] :
       {std::pair("cpg_model_initialize", "cpg_initialize failed with result 2\n"),
        {"cpg_context_set", "cpg_context_set failed with result 2\n"},
        {"cpg_local_get", "cpg_local_get failed with result 2\n"},
        {"cpg_fd_get", "cpg_fd_get failed: 2\n"}})
    expect_fatal(text, [call = call] { g_cpg.failing = call; });
  expect_fatal("cpg_dispatch failed: 2\n",
               [] { g_cpg.on_dispatch = [] { return CS_ERR_LIBRARY; }; });
  // Readable by poll, but not by read.
  expect_fatal("Read from eventfd failed: Is a directory\n",
               [&] { ctx->rpc_fd = open("/", O_RDONLY); });
  expect_fatal("cpg_join failed with result 6",
               [] { g_cpg.join_results = std::deque<cs_error_t>(100, CS_ERR_TRY_AGAIN); });
  expect_fatal("CPG connection lost", [] {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[1]);
    g_cpg.fd = ends[0];
  });
  expect_fatal("Detected long sync state timeout.", [&] {
    ctx->cur_state = ST_LISTREQ;
    g_cpg.on_dispatch = [&] {
      ctx->state_time = get_uptime() - 46;
      return CS_OK;
    };
  });
}

// Two EMs that fail each other's exchanges must not continue to do so.
TEST_F(SyncThreadTest, EachFailureInARowDoublesThePauseBeforeTheNextExchange) {
  for (const int64_t least : {20, 40, 80, 160, 320, 640, 1000, 1000}) {
    const int64_t before = get_uptime_ms();
    end_exchange_error(ctx, "failed");
    EXPECT_GE(ctx->no_exchange_before - before, least);
    EXPECT_LE(pause_before_exchange(ctx), 2 * least);
  }
  reset_cpg_result(ctx);
  end_exchange_full(ctx, 0, nullptr);
  EXPECT_EQ(pause_before_exchange(ctx), 0) << "a success ends it";

  end_exchange_error(ctx, "failed");
  const int64_t end = ctx->no_exchange_before = get_uptime_ms() + 300;
  set_active(true);
  ctx->resync_countdown = 1;
  ctx->cur_state = ST_UNLOCKED;
  g_cpg.sent.clear();
  publish();
  eventfd_write(ctx->rpc_fd, 1);
  while (g_cpg.sent.empty())
    run(1);
  EXPECT_GE(get_uptime_ms(), end) << "neither the request nor the resync begins before";
  EXPECT_EQ(+ctx->rpc_stage, RPC_PENDING) << "the request is served before a resync";
}

TEST_F(SyncThreadTest, ResyncsFourPassesAfterAFailureAndThenEveryHundred) {
  set_active(true);
  Lines attempts;  // the message, sent after the pass in which a resync was attempted
  run(107, [&](int pass) {
    for (const std::string& sent : sent_messages())
      attempts.push_back(std::to_string(pass) + " " + sent);
    if (pass > 1 && g_cpg.sent.empty()) return;
    EXPECT_EQ(ctx->cur_exchange_em_is_active, pass > 1);
    end_exchange_error(ctx, "failed");
    ctx->exchange_pause = 0;
    deliver_own(SentMessage(g_cpg.sent.back()));
    g_cpg.sent.clear();
  });
  EXPECT_EQ(attempts, (Lines{"6 MSG_LOCK_REQ 1.0", "106 MSG_LOCK_REQ 2.0"}));

  set_active(false);
  ctx->cur_state = ST_UNLOCKED;
  ctx->rpc_stage = RPC_IDLE;
  ctx->resync_countdown = 2;
  run(4);
  EXPECT_EQ(ctx->resync_countdown, -1) << "it is not the standby's";
  EXPECT_EQ(sent_messages(), Lines());
}
