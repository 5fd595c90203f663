#include <sys/socket.h>
#include <sys/un.h>

#include "platform/em.h"
#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/frame/service_status.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/frame/state_summary.h"
#include "redundancy_health/transport/cpg_message.h"
#include "redundancy_health/transport/exchange_outcome.h"
#include "tests/unit/daemon_support.h"

namespace {

class StateTest : public DaemonTest {
 protected:
  StateTest() {
    start_state_report();
    change_membership(true);
    deliver_own(g_cpg.sent.back());
    g_cpg.sent.clear();
  }

  static StateRecord state() {
    StateRecord record;
    read_state(&record);
    return record;
  }

  // The peer's exchange `id` including its release.
  static void serve(uint32_t id, const std::string& payload = "") {
    deliver_from_peer(message_bytes(MSG_LOCK_REQ, id, 0));
    deliver_from_peer(message_bytes(MSG_LISTING_REQ, id, 0));
    if (!payload.empty()) deliver_from_peer(message_bytes(MSG_UPDATE_REQ, id, 1, payload));
    deliver_from_peer(message_bytes(MSG_LOCK_REL, id, 0));
  }
};

}  // namespace

TEST_F(StateTest, KeepsTheFirstFailureAsTheCauseAndTheLastOutcome) {
  EXPECT_EQ(state().last_success_age, -1) << "a join is no exchange";
  EXPECT_EQ(state().last_error_age, -1);
  deliver_from_peer(message_bytes(MSG_LOCK_REQ, 1, 0));
  EXPECT_EQ(state().exchange_state, ST_PEERLOCK);
  deliver_from_peer(message_bytes(MSG_LOCK_REL, 1, 0));
  EXPECT_EQ(state().last_success_age, -1) << "nothing was compared";
  serve(2);
  EXPECT_EQ(state().last_success_age, 0);
  EXPECT_TRUE(state_is_well(state()));

  // The failure in the answer to an update is the peer's outcome. It is also known here.
  strcpy(g_diag_params.fail_write_path, tree_path(0, "f").c_str());
  serve(3, update(2, 0, "f", 0, 1, 1, "x"));
  const std::string failed =
      "Unable to update file (Numerical argument out of domain): " + tree_path(0, "f");
  EXPECT_EQ(state().last_error, failed);
  EXPECT_EQ(state().last_cause, failed);

  // A failed scan ends in a timeout here.
  deliver_from_peer(message_bytes(MSG_LOCK_REQ, 4, 0));
  note_failure("first");
  note_failure("second");
  end_exchange_error(ctx, "Operation timed out");
  EXPECT_STREQ(state().last_error, "Operation timed out");
  EXPECT_STREQ(state().last_cause, "first");
  deliver_own(g_cpg.sent.back());
  end_exchange_full(ctx, 42, "refused before an exchange");
  EXPECT_STREQ(state().last_error, "Operation timed out");
  reset_cpg_result(ctx);
  EXPECT_EQ(state().member_count, 2u);
}

TEST_F(StateTest, TellsAHangFromWork) {
  EXPECT_TRUE(watch_heartbeat());
  g_state_report.heartbeat_time = get_uptime() - 61;
  beat(kSyncing);
  EXPECT_EQ(state().heartbeat_age, 0) << "moved since the main thread looked";
  EXPECT_TRUE(watch_heartbeat());
  g_state_report.heartbeat_time = get_uptime() - 61;
  EXPECT_FALSE(watch_heartbeat());
  EXPECT_FALSE(watch_heartbeat());
  EXPECT_EQ(logged(3), Lines{"Replication hangs for 61 s"}) << "once";
  EXPECT_EQ(state().hung, 1u);
  EXPECT_EQ(state().heartbeat_age, 61);
  EXPECT_EQ(state_summary(state()), "standby, replication hangs: waiting for the medium");
  beat(kAtRest);
  EXPECT_TRUE(watch_heartbeat());
  EXPECT_EQ(state().hung, 0u);

  // Each chunk counts as progress, whether of a large file or received.
  make_file(0, "large", pattern(5 * kChunkSize));
  const uint32_t before = g_state_report.heartbeat;
  scan_lines(ctx);
  EXPECT_GE(g_state_report.heartbeat - before, 6u);
}

TEST_F(StateTest, SummaryNamesEveryProblem) {
  write_file("/var/run/em/number", "3");
  StateRecord record = state();
  EXPECT_EQ(state_summary(record), "standby, the number of this EM is neither 1 nor 2");
  write_file("/var/run/em/number", "2");
  set_active(true);
  record = state();
  EXPECT_EQ(record.em_number, 2u);
  record.both_active = 1;
  record.peer_present = 0;
  record.last_error_age = 5;
  strcpy(record.last_error, "bad\nname\x9b");
  EXPECT_EQ(state_summary(record),
            "active, the other EM is away, both EMs are active, replication fails: "
            "bad\\x0aname\\x9b");
  EXPECT_FALSE(state_is_well(record));
  unlink("/var/run/em/number");
  EXPECT_EQ(state().number_source, kNumberMissing);
  EXPECT_EQ(state_summary(state()), "active, all is well");
}

TEST_F(StateTest, TellsTheServiceManagerOnceAndFeedsItsWatchdogWhileAlive) {
  sockaddr_un address = {AF_UNIX, "/mnt/notify"};
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const auto received = [fd] {
    char bytes[512] = "";
    recv(fd, bytes, sizeof bytes - 1, MSG_DONTWAIT);
    return std::string(bytes);
  };
  tell_service_manager(true);
  setenv("NOTIFY_SOCKET", "/mnt/notify", 1);
  g_state_report.membership_flags = 0;
  tell_service_manager(true);
  EXPECT_EQ(received(), "STATUS=standby, not in the group yet\nWATCHDOG=1\n");
  report_context(*ctx);
  tell_service_manager(true);
  EXPECT_EQ(received(), "READY=1\nSTATUS=standby, all is well\nWATCHDOG=1\n");
  tell_service_manager(true);
  EXPECT_EQ(received(), "WATCHDOG=1\n");
  tell_service_manager(false);
  EXPECT_EQ(received(), "");
  announce_main_process();
  EXPECT_EQ(received(), "MAINPID=" + std::to_string(getpid()));
  unsetenv("NOTIFY_SOCKET");
  close(fd);
}
