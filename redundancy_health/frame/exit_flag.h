#ifndef FRAME_EXIT_FLAG_H_
#define FRAME_EXIT_FLAG_H_

#include <pthread.h>
#include <stdint.h>

// The request to stop in order: set once, never cleared, polled by every long-lived thread.
extern uint8_t g_exit_daemon;
extern pthread_mutex_t g_exit_mutex;  // guards g_exit_daemon

bool get_exit_daemon();
void set_exit_daemon();

#endif  // FRAME_EXIT_FLAG_H_
