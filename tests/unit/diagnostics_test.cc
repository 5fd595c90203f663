#include "redundancy_health/rpc/notification.h"
#include "tests/unit/daemon_support.h"

namespace {

uint32_t run(const std::string& text, uint32_t type = 1) {
  return on_rpc_notification(type, reinterpret_cast<const uint8_t*>(text.data()),
                             static_cast<uint32_t>(text.size()), nullptr);
}

// All settings in one line.
std::string settings() {
  const DiagParams& p = g_diag_params;
  return std::to_string(p.allow_deletions) + std::to_string(p.cpg_send_fail) +
         std::to_string(p.statemachine_stuck) + std::to_string(g_flight_recorder.paused) + " " +
         std::to_string(p.max_log_size) + " " + std::to_string(g_flight_recorder.max_entries) +
         " " + p.fail_scan_path + "," + p.fail_read_path + "," + p.fail_write_path + "," +
         p.fail_rename_path;
}

}  // namespace

using DiagnosticsTest = DaemonTest;

TEST_F(DiagnosticsTest, EachCommandChangesItsSettingAndWhatIsNoneNothing) {
  const std::string a150(150, 'a');
  const std::pair<std::string, std::string> rows[] = {
      {"cpg-send-fail=0", "0101 0 500 ,,,"},
      {"cpg-send-nofail=x", "0001 0 500 ,,,"},
      {"statemachine-stuck", "0011 0 500 ,,,"},
      {"statemachine-notstuck", "0001 0 500 ,,,"},
      {"fail-scan=/a", "0001 0 500 /a,,,"},
      {"fail-read=/b=c", "0001 0 500 /a,/b=c,,"},
      {"fail-write=/c", "0001 0 500 /a,/b=c,/c,"},
      {"fail-rename=/d", "0001 0 500 /a,/b=c,/c,/d"},
      {"fail-scan=" + a150, "0001 0 500 " + a150.substr(0, 99) + ",/b=c,/c,/d"},
      {"fail-scan=/x", "0001 0 500 /x,/b=c,/c,/d"},
      {"cpg-send-fail", "0101 0 500 /x,/b=c,/c,/d"},
      {"statemachine-stuck", "0111 0 500 /x,/b=c,/c,/d"},
      {std::string("fail-none\0more", 14), "0001 0 500 ,,,"},
      {"flight-rec=resume", "0000 0 500 ,,,"},
      {"flight-rec=4000", "0000 0 4000 ,,,"},
      {"flight-rec=pause", "0001 0 4000 ,,,"},
      {"flight-rec=nonsense", "0001 0 0 ,,,"},
      {"log-size=4294967295", "0001 -1 0 ,,,"},
      {"log-size=12k", "0001 12 0 ,,,"},
      {"allow-deletions", "1001 12 0 ,,,"},
  };
  for (const auto& [message, after] : rows) {
    EXPECT_EQ(run(message), 0u);
    EXPECT_EQ(settings(), after) << message;
  }
  EXPECT_EQ(logged(4).size(), std::size(rows)) << "each says what it did";
  unlink("/tmp/cluster_sync_daemon.log");
  for (const char* message : {"", "stats ", "=exit", "log-size", "fail-scan", "fail-write", "exi"})
    EXPECT_EQ(run(message), 6u) << message;
  EXPECT_EQ(run("exit", 9), 6u);
  EXPECT_EQ(settings(), "1001 12 0 ,,,");
  EXPECT_FALSE(get_exit_daemon());
  EXPECT_EQ(run("exit=later"), 0u);
  EXPECT_TRUE(get_exit_daemon());
}
