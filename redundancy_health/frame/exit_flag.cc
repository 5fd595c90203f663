#include "redundancy_health/frame/exit_flag.h"

#include "redundancy_health/frame/check.h"

uint8_t g_exit_daemon = 0;
pthread_mutex_t g_exit_mutex = PTHREAD_MUTEX_INITIALIZER;

bool get_exit_daemon() {
  CHECK_ZERO(pthread_mutex_lock(&g_exit_mutex));
  const bool exit_daemon = g_exit_daemon != 0;
  CHECK_ZERO(pthread_mutex_unlock(&g_exit_mutex));
  return exit_daemon;
}

void set_exit_daemon() {
  CHECK_ZERO(pthread_mutex_lock(&g_exit_mutex));
  g_exit_daemon = 1;
  CHECK_ZERO(pthread_mutex_unlock(&g_exit_mutex));
}
