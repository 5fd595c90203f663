#include "redundancy_health/frame/cleanup_thread.h"

#include "tests/unit/daemon_support.h"

namespace {

std::function<void()> g_on_sleep;  // set: a sleep takes no time

}  // namespace

extern "C" unsigned sleep(unsigned seconds) {
  const timespec time = {static_cast<time_t>(seconds), 0};
  g_on_sleep ? g_on_sleep() : static_cast<void>(nanosleep(&time, nullptr));
  return 0;
}

using CleanupThreadTest = DaemonTest;

TEST_F(CleanupThreadTest, DelaysAreMinutesOfTwentyBits) {
  g_flight_recorder.paused = 0;
  const Mount no_script("/usr/bin");  // so each run leaves a line
  // Seconds from the start to the first run, and from it to the second.
  for (const auto& [initial, periodic, first_run, second_run] : {std::tuple("2", "5", 120, 300),
                                                                 {"1048577", "1048578", 60, 120},
                                                                 {" 3x", "abc", 180, 3600}}) {
    setenv("CLEANUP_INITIAL_DELAY", initial, 1);
    setenv("CLEANUP_PERIODIC_DELAY", periodic, 1);
    empty_flight_recorder();
    g_exit_daemon = 0;
    int seconds = 0;
    std::vector<int> runs;
    g_on_sleep = [&] {
      if (g_flight_recorder.count > runs.size()) runs.push_back(seconds);
      if (runs.size() == 2) set_exit_daemon();
      ++seconds;
    };
    EXPECT_EQ(cleanup_thread_fn(nullptr), nullptr);
    EXPECT_EQ(runs, std::vector<int>({first_run, first_run + second_run}));
    EXPECT_EQ(seconds, first_run + second_run + 1) << "the flag ends it before a second";
  }
  g_on_sleep = nullptr;
  EXPECT_EQ(logged(3).at(0), "Could not run temp file cleanup script: rc=127");
  EXPECT_EQ(g_flight_recorder.paused, 0) << "no reason to dump the flight recorder";
}
