#include <fcntl.h>
#include <string.h>
#include <sys/eventfd.h>

#include "redundancy_health/frame/check.h"
#include "redundancy_health/frame/daemon_main.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/exit_flag.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/statistics.h"
#include "tests/unit/daemon_support.h"

namespace {

using FrameTest = DaemonTest;
using FrameDeathTest = DaemonTest;

TEST_F(FrameTest, ContextStartsAsEveryPartExpectsIt) {
  memset(static_cast<void*>(ctx), 0xA5, sizeof(*ctx));
  init_context(ctx);
  EXPECT_EQ(ctx->rpc_fd, -1);
  EXPECT_EQ(ctx->resync_countdown, -1);
  for (const uint64_t zero :
       {uint64_t{ctx->cpg_local_nodeid}, uint64_t{ctx->cpg_handle}, uint64_t{ctx->cpg_initialized},
        static_cast<uint64_t>(ctx->state_time), uint64_t{ctx->cpg_membership_flags},
        uint64_t{ctx->cur_exchange_id}, uint64_t{ctx->cur_sequence_id},
        uint64_t{ctx->peer_exchange_id}, uint64_t{ctx->peer_sequence_id},
        uint64_t{ctx->cur_exchange_em_is_active}, uint64_t{ctx->rpc_deferred},
        uint64_t{ctx->cur_state}, static_cast<uint64_t>(ctx->consecutive_errors),
        uint64_t{ctx->rpc_stage}, uint64_t{ctx->current_rpc_size},
        static_cast<uint64_t>(int32_t{ctx->waiting_rpc_count})}) {
    EXPECT_EQ(zero, 0u);
  }
  EXPECT_EQ(ctx->update_queue, nullptr);
  EXPECT_EQ(ctx->rpc_msg, nullptr);
  std::string success(128, '\0');
  success[0] = success[1] = success[2] = 1;
  success[8] = 'N';
  EXPECT_EQ(std::string(reinterpret_cast<char*>(&ctx->cpg_result), 128), success);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(&ctx->rpc_result), 128), success);
  EXPECT_EQ(ctx->data_chunk_buf[kChunkSize - 1], 0xA5);
  EXPECT_EQ(pthread_mutex_trylock(&ctx->rpc_mutex), 0);
  pthread_mutex_unlock(&ctx->rpc_mutex);
  EXPECT_EQ(g_cmd_socket_num, 2006);
}

TEST_F(FrameTest, FaultPathMatchesByteForByte) {
  const struct {
    const char* fault_path;
    const char* path;
    bool match;
  } cases[] = {{"", "", false},      {"", "/a", false},     {"/a", "/a", true},
               {"/a", "/a/", false}, {"/a", "/a/b", false}, {"/a/b", "/a", false},
               {"/a", "/A", false},  {"/a", "//a", false}};
  for (const auto& c : cases) {
    errno = ENOTTY;
    EXPECT_EQ(have_error_injection(c.fault_path, c.path), c.match) << c.fault_path << " " << c.path;
    EXPECT_EQ(errno, c.match ? EDOM : ENOTTY);
  }
}

int failing_close(int error) {
  errno = error;
  return -1;
}

TEST_F(FrameDeathTest, ChecksQuoteTheirExpression) {
  CHECK_ZERO(1 - 1);
  CHECK_NOT_NEGATIVE(7);
  CHECK_TRUE(1 + 1 == 2);
  CHECK_NOT_NULL(ctx);
  CHECK_CLOSE(0);
  EXPECT_ABORT("EXCEPTION: 4 + 3 = 7", CHECK_ZERO(4 + 3));
  EXPECT_ABORT("EXCEPTION: -5 = -5", CHECK_NOT_NEGATIVE(-5));
  EXPECT_ABORT("EXCEPTION: ctx->rpc_fd == CS_OK = 0", CHECK_TRUE(ctx->rpc_fd == CS_OK));
  EXPECT_ABORT("EXCEPTION: ctx->rpc_msg is NULL", CHECK_NOT_NULL(ctx->rpc_msg));
  EXPECT_ABORT("EXCEPTION: failing_close(EBADF) ended with EBADF",
               CHECK_CLOSE(failing_close(EBADF)));
  EXPECT_ABORT("EXCEPTION: Exiting daemon due to unrecoverable error", on_severe_error());
}

TEST_F(FrameTest, AnOrdinaryFailedCloseIsOnlyLogged) {
  CHECK_CLOSE(failing_close(EIO));
  EXPECT_EQ(errno, EIO);
  CHECK_CLOSE_AS("fclose(f)", failing_close(ENOSPC));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(logged(3), std::vector<std::string>(
                           {"failing_close(EIO) = -1; errno=5", "fclose(f) = -1; errno=28"}));
  EXPECT_EQ(g_flight_recorder.count, 0u) << "for the platform log alone";
}

// Runs the daemon in the child of a death test, with its log on standard error.
[[noreturn]] void run_daemon() {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  g_foreground = 1;
  g_cpg.fd = eventfd(0, 0);
  set_exit_daemon();
  const int status = daemon_main(0, nullptr);
  if (g_flight_recorder.count != 1) _exit(98);  // emptied but for the last line
  _exit(g_cpg.finalize_calls == 1 ? status : 97);
}

TEST_F(FrameDeathTest, StopsInOrder) {
  EXPECT_EXIT(run_daemon(), testing::ExitedWithCode(0),
              "^<6> daemon_main:[0-9]+: Starting cluster_sync_daemon\n.*"
              "<4> daemon_main:[0-9]+: cluster_sync_daemon clean shutdown requested\n.*"
              "<6> daemon_main:[0-9]+: Exiting cluster_sync_daemon\n$");
}

TEST_F(FrameDeathTest, NeedsItsCommandSocket) {
  ASSERT_EQ(mkdir("/var/run/em/cmd.2006", 0755), 0);
  EXPECT_ABORT("EXCEPTION: cmd_server is NULL", run_daemon());
}

}  // namespace
