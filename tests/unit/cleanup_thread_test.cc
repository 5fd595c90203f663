#include "redundancy_health/frame/cleanup_thread.h"

#include <stdlib.h>
#include <sys/mount.h>
#include <time.h>

#include <functional>

#include "redundancy_health/frame/exit_flag.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "tests/unit/daemon_support.h"

namespace {

std::function<void()> g_on_sleep;  // set: a sleep takes no time

}  // namespace

extern "C" unsigned sleep(unsigned seconds) {
  if (g_on_sleep) {
    EXPECT_EQ(seconds, 1u);
    g_on_sleep();
    return 0;
  }
  const timespec time = {static_cast<time_t>(seconds), 0};
  nanosleep(&time, nullptr);
  return 0;
}

namespace {

using CleanupThreadTest = DaemonTest;

TEST_F(CleanupThreadTest, DelaysAreMinutesOfTwentyBits) {
  const struct {
    const char* initial;
    const char* periodic;
    int first_run;   // seconds after the start
    int second_run;  // seconds after the first
  } cases[] = {{"2", "5", 120, 300},        {"0", "0", 60, 3600},
               {"1048576", "", 60, 3600},   {"1048577", "1048578", 60, 120},
               {" 3x", "7.5", 180, 420},    {"-1048573", "abc", 180, 3600},
               {nullptr, nullptr, 60, 3600}};
  // There is no script in an empty file system, so each run leaves a line.
  ASSERT_EQ(mount("tmpfs", "/usr/bin", "tmpfs", 0, nullptr), 0);
  for (const auto& c : cases) {
    for (const auto& [name, value] :
         {std::pair("CLEANUP_INITIAL_DELAY", c.initial), {"CLEANUP_PERIODIC_DELAY", c.periodic}}) {
      value != nullptr ? setenv(name, value, 1) : unsetenv(name);
    }
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
    EXPECT_EQ(runs, std::vector<int>({c.first_run, c.first_run + c.second_run}))
        << (c.initial != nullptr ? c.initial : "unset");
    EXPECT_EQ(seconds, c.first_run + c.second_run + 1) << "the flag ends it before a second";
  }
  g_on_sleep = nullptr;
  umount2("/usr/bin", MNT_DETACH);
  EXPECT_EQ(logged(3).at(0), "Could not run temp file cleanup script: rc=127");
  EXPECT_EQ(g_flight_recorder.paused, 0) << "no reason to dump the flight recorder";
}

}  // namespace
