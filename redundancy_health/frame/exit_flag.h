#ifndef FRAME_EXIT_FLAG_H_
#define FRAME_EXIT_FLAG_H_

#include <stdint.h>
#include <time.h>

#include "platform/mutex.h"

// The request to stop in order. It is set once and never cleared. Every long-lived thread checks
// it.
extern Mutex g_exit_mutex;
extern uint8_t g_exit_daemon GUARDED_BY(g_exit_mutex);

bool get_exit_daemon();
void set_exit_daemon();

// Sleeps until the request comes or CLOCK_MONOTONIC reaches `deadline`. Returns whether it came.
bool wait_for_exit_flag(const timespec& deadline);

#endif  // FRAME_EXIT_FLAG_H_
