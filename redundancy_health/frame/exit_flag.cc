#include "redundancy_health/frame/exit_flag.h"

#include "redundancy_health/frame/checked_lock.h"

uint8_t g_exit_daemon = 0;
Mutex g_exit_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

pthread_cond_t g_exit_requested = PTHREAD_COND_INITIALIZER;

}  // namespace

bool get_exit_daemon() {
  HOLD_MUTEX(g_exit_mutex);
  return g_exit_daemon != 0;
}

void set_exit_daemon() {
  HOLD_MUTEX(g_exit_mutex);
  g_exit_daemon = 1;
  pthread_cond_broadcast(&g_exit_requested);
}

bool wait_for_exit_flag(const timespec& deadline) {
  HOLD_MUTEX(g_exit_mutex);
  int rc = 0;
  while (g_exit_daemon == 0 && rc == 0)
    rc = pthread_cond_clockwait(&g_exit_requested, &g_exit_mutex, CLOCK_MONOTONIC, &deadline);
  return g_exit_daemon != 0;
}
