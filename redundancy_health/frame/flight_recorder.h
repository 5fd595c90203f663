#ifndef FRAME_FLIGHT_RECORDER_H_
#define FRAME_FLIGHT_RECORDER_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/queue.h>

#include "platform/mutex.h"
#include "redundancy_health/frame/relaxed.h"

// Keeps the latest log lines in memory, to show what happened before the first error.

struct FlightRecorderEntry {
  char* text;  // prefix and message without a newline; stored after the entry
  SIMPLEQ_ENTRY(FlightRecorderEntry) next;
};

struct FlightRecorder {
  Mutex mutex;
  SIMPLEQ_HEAD(FlightRecorderQueue, FlightRecorderEntry)
  entries GUARDED_BY(mutex);               // oldest first
  uint32_t max_entries GUARDED_BY(mutex);  // 0 records nothing
  uint32_t count GUARDED_BY(mutex);
  // Set by the first dump, to keep the lines before the first error. Written with the mutex held.
  Relaxed<uint8_t> paused;
};

extern FlightRecorder g_flight_recorder;

// Records one line (`length` bytes and a NUL). If it is the first error, dumps and pauses. Removes
// the oldest lines above max_entries. Takes the mutex.
void record_line(int level, int dump, const char* text, size_t length);

// Writes every line to the platform log at level 3.
void dump_flight_recorder() REQUIRES(g_flight_recorder.mutex);

// Drops every line. Takes the mutex, because a request that is still running when the command
// server has shut down may still log.
void empty_flight_recorder();

#endif  // FRAME_FLIGHT_RECORDER_H_
