#include "redundancy_health/frame/exit_flag.h"

#include "redundancy_health/frame/checked_lock.h"

uint8_t g_exit_daemon = 0;
Mutex g_exit_mutex = PTHREAD_MUTEX_INITIALIZER;

bool get_exit_daemon() {
  HOLD_MUTEX(g_exit_mutex);
  return g_exit_daemon != 0;
}

void set_exit_daemon() {
  HOLD_MUTEX(g_exit_mutex);
  g_exit_daemon = 1;
}
