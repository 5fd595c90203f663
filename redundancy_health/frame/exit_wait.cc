#include "redundancy_health/frame/exit_wait.h"

#include <time.h>

#include "redundancy_health/frame/exit_flag.h"

namespace {

timespec after(const timespec& begin, time_t seconds) {
  return {begin.tv_sec + seconds, begin.tv_nsec};
}

// Seconds since `begin`, a started second counted as a whole one.
time_t seconds_begun(const timespec& begin) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec - begin.tv_sec + (now.tv_nsec > begin.tv_nsec ? 1 : 0);
}

}  // namespace

bool exit_requested_within(int seconds) {
  timespec begin;
  clock_gettime(CLOCK_MONOTONIC, &begin);
  if (get_exit_daemon()) return true;
  if (!wait_for_exit_flag(after(begin, seconds))) return false;
  const time_t noticed = seconds_begun(begin);
  const timespec end = after(begin, noticed < seconds ? noticed : seconds);
  clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr);
  return noticed < seconds;
}
