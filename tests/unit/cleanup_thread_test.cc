#include "redundancy_health/frame/cleanup_thread.h"

#include "redundancy_health/frame/exit_wait.h"
#include "tests/unit/daemon_support.h"

namespace {

std::vector<int> g_waits;

}  // namespace

// Replaces the wait: takes no time, and returns true at the third call.
bool exit_requested_within(int seconds) {
  if (g_waits.size() == 2) return true;
  g_waits.push_back(seconds);
  return false;
}

using CleanupThreadTest = DaemonTest;

TEST_F(CleanupThreadTest, DelaysAreMinutesOfTwentyBits) {
  g_flight_recorder.paused = 0;
  const Mount no_script("/usr/bin");  // so that each run leaves a log line
  // Seconds from the start to the first run, and from it to the second.
  for (const auto& [initial, periodic, first_run, second_run] : {std::tuple("2", "5", 120, 300),
                                                                 {"1048577", "1048578", 60, 120},
                                                                 {" 3x", "abc", 180, 3600}}) {
    setenv("CLEANUP_INITIAL_DELAY", initial, 1);
    setenv("CLEANUP_PERIODIC_DELAY", periodic, 1);
    g_waits.clear();
    EXPECT_EQ(cleanup_thread_fn(nullptr), nullptr);
    EXPECT_EQ(g_waits, std::vector<int>({first_run, second_run}));
  }
  EXPECT_EQ(logged(3).size(), 6) << "each run leaves a line";
  EXPECT_EQ(logged(3).at(0), "Could not run temp file cleanup script: rc=127");
  EXPECT_EQ(g_flight_recorder.paused, 0) << "no reason to dump the flight recorder";
}
