#include "redundancy_health/rpc/diagnostics.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/exit_flag.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/statistics.h"
#include "redundancy_health/rpc/notification.h"
#include "tests/unit/daemon_support.h"
#include "tests/unit/update_bytes.h"

namespace {

using Lines = std::vector<std::string>;

uint32_t run(const std::string& text) {
  return run_diagnostic(reinterpret_cast<const uint8_t*>(text.data()),
                        static_cast<uint32_t>(text.size()));
}

// The settings in one line.
std::string settings() {
  return std::to_string(g_diag_params.cpg_send_fail) +
         std::to_string(g_diag_params.statemachine_stuck) + " " +
         std::to_string(g_diag_params.max_log_size) + " " + g_diag_params.fail_scan_path + "," +
         g_diag_params.fail_read_path + "," + g_diag_params.fail_write_path + "," +
         g_diag_params.fail_rename_path;
}

}  // namespace

using DiagnosticsTest = DaemonTest;

TEST_F(DiagnosticsTest, EachCommandChangesItsSettingAndSaysSo) {
  const std::string a150(150, 'a');
  // clang-format off
  const struct {
    std::string message, settings, word, line;
  } rows[] = {
      {"cpg-send-fail", "10 0 ,,,", "cpg-send-fail", "Forcing CPG send operations to fail."},
      {"cpg-send-nofail=x", "00 0 ,,,", "cpg-send-nofail", "Resuming CPG send normal operations."},
      {"statemachine-stuck", "01 0 ,,,", "statemachine-stuck", "State machine frozen."},
      {"statemachine-notstuck", "00 0 ,,,", "statemachine-stuck", "State machine back to normal."},
      {"fail-scan=/a", "00 0 /a,,,", "fail-scan", "Setting fail scan path to '/a'"},
      {"fail-read=/b=c", "00 0 /a,/b=c,,", "fail-read", "Setting fail read path to '/b=c'"},
      {"fail-write=/c", "00 0 /a,/b=c,/c,", "fail-write", "Setting fail write path to '/c'"},
      {"fail-rename=/d", "00 0 /a,/b=c,/c,/d", "fail-rename", "Setting fail rename path to '/d'"},
      {"fail-scan=" + a150, "00 0 " + a150.substr(0, 99) + ",/b=c,/c,/d", "fail-scan",
       "Setting fail scan path to '" + a150 + "'"},
      {"fail-scan=", "00 0 ,/b=c,/c,/d", "fail-scan", "Setting fail scan path to ''"},
      {"cpg-send-fail=0", "10 0 ,/b=c,/c,/d", "cpg-send-fail",
       "Forcing CPG send operations to fail."},
      {std::string("fail-none\0more", 14), "00 0 ,,,", "fail-none",
       "Disabling all error injections"},
      {"log-size=1000", "00 1000 ,,,", "log-size", "Setting max log size to'1000'"},
      {"log-size=12k", "00 12 ,,,", "log-size", "Setting max log size to'12'"},
      {"log-size=-1", "00 -1 ,,,", "log-size", "Setting max log size to'-1'"},
      {"log-size=0x10", "00 0 ,,,", "log-size", "Setting max log size to'0'"},
      {"log-size=none", "00 0 ,,,", "log-size", "Setting max log size to'0'"},
  };
  // clang-format on
  Lines lines;
  for (const auto& row : rows) {
    EXPECT_EQ(run(row.message), 0u);
    EXPECT_EQ(settings(), row.settings);
    lines.push_back("Received " + row.word + " diag command. " + row.line);
  }
  EXPECT_EQ(logged(4), lines);
  unlink("/tmp/cluster_sync_daemon.log");
  unlink("/tmp/cluster_sync_daemon.log.0");
}

TEST_F(DiagnosticsTest, WhatIsNoCommandChangesNothing) {
  g_flight_recorder.paused = 1;
  // clang-format off
  const Lines invalid = {"", "nonsense", "Stats", "stats ", " exit", "=", "=exit", "log-size",
                         "fail-scan", "fail-read", "fail-write", "fail-rename", "exi",
                         "exit\nexit", std::string(60000, 'x')};
  // clang-format on
  for (const std::string& message : invalid)
    EXPECT_EQ(run(message), 6u) << message;
  EXPECT_EQ(settings(), "00 0 ,,,");
  EXPECT_EQ(g_exit_daemon, 0);
  EXPECT_EQ(logged(3), Lines(invalid.size(), "received an invalid diag message"));
  EXPECT_EQ(logged(4), Lines());
}

TEST_F(DiagnosticsTest, ExitSetsTheFlag) {
  EXPECT_EQ(run("exit=later"), 0u);
  EXPECT_TRUE(get_exit_daemon());
  EXPECT_EQ(logged(4), Lines{"Received exit diag command. Stopping daemon."});
}

TEST_F(DiagnosticsTest, StatsAreDumpedAndReset) {
  stats.n_syncs_from_self = 1;
  stats.n_syncs_from_peer = 22;
  stats.n_chunk_writes_from_peer = 333;
  stats.n_digest_files_created = 4444;
  stats.n_atomic_updates_from_self = 55555;
  stats.n_digest_files_scanned = 666666;
  stats.n_digest_chunks_scanned = 7777777;
  stats.n_digest_bytes_elided = 1LL << 40;
  stats.n_filesys_files_scanned = 4294967295u;
  stats.n_filesys_chunks_scanned = 10;
  stats.n_filesys_bytes_scanned = 12345678901234567LL;
  for (const char* message : {"stats", "stats=", "stats=dumps", "stats=dump", "stats=reset"})
    EXPECT_EQ(run(message), 0u) << message;
  EXPECT_EQ(
      logged(4),
      (Lines{
          "Received stats dump diag command. Current count values follow:",
          "Syncs from self:                        1", "Syncs from peer:                       22",
          "Chunk writes from peer:               333", "Digest files created:                4444",
          "Atomic updates from self:           55555", "Digest files scanned:              666666",
          "Digest chunks scanned:            7777777", "Digest bytes elided:        1099511627776",
          "File sys files scanned:        4294967295", "File sys chunks scanned:               10",
          "File sys bytes scanned:    12345678901234567",
          "Received stats reset diag command. Reseting stats counters."}));
  run("stats=dump");
  const Lines lines = logged(4);
  for (size_t i = lines.size() - 11; i < lines.size(); ++i)
    EXPECT_EQ(lines[i].substr(27), "             0");
}

TEST_F(DiagnosticsTest, TheFlightRecorderObeys) {
  LOG(7, "a recorded line");
  const struct {
    const char* message;
    const char* line;
  } rows[] = {
      {"flight-rec", "Paused=0 Max size-500"},       {"flight-rec=4000", "Paused=0 Max size-4000"},
      {"flight-rec=dump", "Paused=0 Max size-4000"}, {"flight-rec=pause", "Paused=1 Max size-4000"},
      {"flight-rec=3", "Paused=1 Max size-3"},       {"flight-rec=resume", "Paused=0 Max size-3"},
      {"flight-rec=nonsense", "Paused=0 Max size-0"}};
  Lines lines;
  for (const auto& row : rows) {
    EXPECT_EQ(run(row.message), 0u);
    lines.push_back(std::string("Received flight-rec diag command. ") + row.line);
  }
  EXPECT_EQ(logged(4), lines);
  const Lines dumped = logged(3);
  ASSERT_EQ(dumped.size(), 1u) << "no banner, and its own lines are not recorded";
  EXPECT_NE(dumped[0].find("a recorded line"), std::string::npos);
  EXPECT_EQ(g_flight_recorder.count, 1u);
}

TEST_F(DiagnosticsTest, TheSocketCarriesStatusAndRecord) {
  g_flight_recorder.paused = 1;
  CmdServer* server = cmd_server_create(78, on_rpc_notification);
  ASSERT_NE(server, nullptr);
  ASSERT_EQ(cmd_server_start(server), 0);
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, "/var/run/em/cmd.78");
  ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  const std::string reason = "Write to eventfd failed: Bad file descriptor";  // rpc_fd is -1
  const struct {
    uint32_t type;
    const char* message;
    std::string answer;
  } rows[] = {{1, "stats", little_endian(0)},
              {1, "nonsense", little_endian(6)},
              {2, "stats", little_endian(6)},
              {0xFFFFFFFF, "stats", little_endian(6)},
              {0, "/a",
               little_endian(0) + std::string("\0\0\0\0\1\0\0\0N\0\0\0", 12) + reason +
                   std::string(116 - reason.size(), '\0')}};
  for (const auto& row : rows) {
    const std::string packet = little_endian(row.type) + row.message;
    ASSERT_EQ(send(fd, packet.data(), packet.size(), 0), static_cast<ssize_t>(packet.size()));
    char answer[200];
    const ssize_t size = recv(fd, answer, sizeof(answer), 0);
    EXPECT_EQ(std::string(answer, static_cast<size_t>(size)), row.answer) << packet;
  }
  close(fd);
  cmd_server_shutdown(server);
  pthread_join(server->thread, nullptr);
  EXPECT_EQ(logged(3), (Lines{"received an invalid diag message", "received an invalid message 2",
                              "received an invalid message -1", reason}));
}
