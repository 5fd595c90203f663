#ifndef FRAME_EXIT_FLAG_H_
#define FRAME_EXIT_FLAG_H_

#include <stdint.h>
#include <time.h>

#include "platform/mutex.h"

// The request to stop in order: set once, never cleared, looked at by every long-lived thread.
extern Mutex g_exit_mutex;
extern uint8_t g_exit_daemon GUARDED_BY(g_exit_mutex);

bool get_exit_daemon();
void set_exit_daemon();

// Sleeps until the request comes, true, or CLOCK_MONOTONIC is at `deadline`.
bool wait_for_exit_flag(const timespec& deadline);

#endif  // FRAME_EXIT_FLAG_H_
