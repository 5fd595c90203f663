#ifndef FRAME_LOG_H_
#define FRAME_LOG_H_

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "platform/util.h"
#include "redundancy_health/frame/check.h"

// Texts are matched by monitors and read by `cluster_sync_ctl explain`: none is corrected, misspelt
// or not. Levels are syslog priorities: 3 errors, 4 operator actions and notable events, 6
// milestones, 7 debug trace.

#define LOG(level, ...) LOG_AS(__func__, level, 1, __VA_ARGS__)

// An expected error: it does not dump the flight recorder.
#define LOG_NO_DUMP(level, ...) LOG_AS(__func__, level, 0, __VA_ARGS__)

// For the platform log alone: neither the private log file nor the flight recorder gets the line.
#define LOG_PLATFORM_ONLY(level, ...) DbgOutput(__FILE__, __LINE__, __func__, level, __VA_ARGS__)

// The full form: under the name `function`, with the dump flag given. errno is kept.
#define LOG_AS(function, level, dump, ...) \
  log_line(__FILE__, __LINE__, function, level, dump, __VA_ARGS__)

// One line for the platform log and for private_log. Any thread; leaves errno as it was.
void log_line(const char* file, int line, const char* function, int level, int dump,
              const char* format, ...) __attribute__((format(printf, 6, 7)));

// Appends the line to /tmp/cluster_sync_daemon.log (when a size limit is set) and to the flight
// recorder; the first line of level 3 or less with bit 0 of `dump` set dumps the recorder and
// pauses it. Any thread; leaves errno as it was. What could break a line or drive a terminal is
// escaped. A line whose file cannot be looked at or renamed is lost; where something stands that is
// not the daemon's own file, only the recorder gets it.
void private_log(int level, const char* function, int line, int dump, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// The end of a process that cannot go on: logs and aborts.
extern "C" [[noreturn]] __attribute__((visibility("default"))) void on_severe_error();

// Seconds since boot, -1 (logged) when the clock cannot be read. The wall clock may jump; this one
// does not.
int32_t get_uptime();

// The same clock in milliseconds, -1 when it cannot be read.
int64_t get_uptime_ms();

#endif  // FRAME_LOG_H_
