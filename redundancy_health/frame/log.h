#ifndef FRAME_LOG_H_
#define FRAME_LOG_H_

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "platform/util.h"
#include "redundancy_health/frame/check.h"

// Monitors match these texts and `cluster_sync_ctl explain` reads them, so never correct one, even
// a misspelt one. Levels are syslog priorities: 3 errors, 4 operator actions and notable events, 6
// milestones, 7 debug trace.

#define LOG(level, ...) LOG_AS(__func__, level, 1, __VA_ARGS__)

// For an expected error: does not dump the flight recorder.
#define LOG_NO_DUMP(level, ...) LOG_AS(__func__, level, 0, __VA_ARGS__)

// For the platform log only, not for the private log file and the flight recorder.
#define LOG_PLATFORM_ONLY(level, ...) DbgOutput(__FILE__, __LINE__, __func__, level, __VA_ARGS__)

// The full form, with the function name and the dump flag. errno is unchanged.
#define LOG_AS(function, level, dump, ...) \
  log_line(__FILE__, __LINE__, function, level, dump, __VA_ARGS__)

// Writes one line to the platform log and to private_log. Any thread; errno is unchanged.
void log_line(const char* file, int line, const char* function, int level, int dump,
              const char* format, ...) __attribute__((format(printf, 6, 7)));

// Appends the line to /tmp/cluster_sync_daemon.log (if a size limit is set) and to the flight
// recorder. The first line of level 3 or less with bit 0 of `dump` set dumps and pauses the
// recorder. Escapes bytes that could break a line or control a terminal. If the log file cannot be
// checked or renamed, the line is lost. If the path is not a file of the daemon's own, only the
// recorder gets the line. Any thread; errno is unchanged.
void private_log(int level, const char* function, int line, int dump, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// Logs and aborts. For a process that cannot continue.
extern "C" [[noreturn]] __attribute__((visibility("default"))) void on_severe_error();

// Seconds since boot, a started second counted as a whole one. -1 (logged) if the clock cannot be
// read. Unlike the wall clock, it does not jump.
int32_t get_uptime();

// The same clock in milliseconds. -1 if it cannot be read.
int64_t get_uptime_ms();

#endif  // FRAME_LOG_H_
