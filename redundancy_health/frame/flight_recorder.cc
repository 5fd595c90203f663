#include "redundancy_health/frame/flight_recorder.h"

#include <stdlib.h>
#include <string.h>

#include "platform/util.h"
#include "redundancy_health/frame/checked_lock.h"

FlightRecorder g_flight_recorder = {
    PTHREAD_MUTEX_INITIALIZER, SIMPLEQ_HEAD_INITIALIZER(g_flight_recorder.entries), 500, 0, {}};

// Bypasses the log, which calls the recorder.
#define PLATFORM_LINE(...) DbgOutput(__FILE__, __LINE__, __func__, 3, __VA_ARGS__)

namespace {

void append_line(const char* text, size_t length) REQUIRES(g_flight_recorder.mutex) {
  auto* entry = static_cast<FlightRecorderEntry*>(malloc(sizeof(FlightRecorderEntry) + length + 1));
  CHECK_NOT_NULL(entry);
  entry->text = reinterpret_cast<char*>(entry + 1);
  memcpy(entry->text, text, length + 1);
  SIMPLEQ_INSERT_TAIL(&g_flight_recorder.entries, entry, next);
  ++g_flight_recorder.count;
}

void remove_oldest() REQUIRES(g_flight_recorder.mutex) {
  FlightRecorderEntry* entry = SIMPLEQ_FIRST(&g_flight_recorder.entries);
  SIMPLEQ_REMOVE_HEAD(&g_flight_recorder.entries, next);
  free(entry);
}

}  // namespace

void record_line(int level, int dump, const char* text, size_t length) {
  HOLD_MUTEX(g_flight_recorder.mutex);
  if (g_flight_recorder.paused) return;
  if (g_flight_recorder.max_entries != 0) append_line(text, length);
  if (level <= 3 && (dump & 1) != 0) {
    PLATFORM_LINE("===== CLUSTER SYNC DAEMON ERROR DETECTED. Flight recorder dump follows. =====");
    dump_flight_recorder();
    g_flight_recorder.paused = 1;
  }
  while (g_flight_recorder.count > g_flight_recorder.max_entries) {
    CHECK_ZERO(SIMPLEQ_EMPTY(&g_flight_recorder.entries));
    remove_oldest();
    --g_flight_recorder.count;
  }
}

void dump_flight_recorder() {
  FlightRecorderEntry* entry;
  SIMPLEQ_FOREACH(entry, &g_flight_recorder.entries, next) {
    PLATFORM_LINE("%s", entry->text);
  }
}

void empty_flight_recorder() {
  HOLD_MUTEX(g_flight_recorder.mutex);
  while (!SIMPLEQ_EMPTY(&g_flight_recorder.entries))
    remove_oldest();
  g_flight_recorder.count = 0;
}
