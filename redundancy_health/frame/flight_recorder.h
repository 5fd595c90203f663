#ifndef FRAME_FLIGHT_RECORDER_H_
#define FRAME_FLIGHT_RECORDER_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/queue.h>

#include "platform/mutex.h"
#include "redundancy_health/frame/relaxed.h"

// The most recent log lines, kept in memory so that the first error can show what led up to it.

struct FlightRecorderEntry {
  char* text;  // prefix and message without a newline; behind the entry
  SIMPLEQ_ENTRY(FlightRecorderEntry) next;
};

struct FlightRecorder {
  Mutex mutex;
  SIMPLEQ_HEAD(FlightRecorderQueue, FlightRecorderEntry)
  entries GUARDED_BY(mutex);               // oldest first
  uint32_t max_entries GUARDED_BY(mutex);  // 0 records nothing
  uint32_t count GUARDED_BY(mutex);
  // Set by the first dump: the lines before the first error are the precious ones. Written with the
  // mutex held.
  Relaxed<uint8_t> paused;
};

extern FlightRecorder g_flight_recorder;

// Records one line (`length` bytes and a NUL), dumps and pauses when it is the first error, and
// trims. Takes the mutex.
void record_line(int level, int dump, const char* text, size_t length);

// Writes every line to the platform log at level 3.
void dump_flight_recorder() REQUIRES(g_flight_recorder.mutex);

// Drops every line. Takes the mutex: at the end of the process a request that outlived the command
// server's patience may still log.
void empty_flight_recorder();

#endif  // FRAME_FLIGHT_RECORDER_H_
