#include "redundancy_health/frame/cleanup_thread.h"

#include <stdlib.h>

#include "platform/util.h"
#include "redundancy_health/frame/exit_wait.h"
#include "redundancy_health/frame/log.h"

namespace {

constexpr long kDelayMask = 0xFFFFF;

int delay_seconds(const char* variable, int default_seconds) {
  const char* text = getenv(variable);
  if (text == nullptr) return default_seconds;
  const int minutes = static_cast<int>(strtol(text, nullptr, 10) & kDelayMask);
  return minutes != 0 ? minutes * 60 : default_seconds;
}

}  // namespace

void* cleanup_thread_fn(void*) {
  int delay = delay_seconds("CLEANUP_INITIAL_DELAY", 60);
  const int periodic_delay = delay_seconds("CLEANUP_PERIODIC_DELAY", 3600);
  for (;;) {
    if (exit_requested_within(delay)) return nullptr;
    const char* const argv[] = {"/usr/bin/clean_up_temp_files.py", nullptr};
    const int rc = execute_normal(argv);
    if (rc != 0) LOG_NO_DUMP(3, "Could not run temp file cleanup script: rc=%d", rc);
    delay = periodic_delay;
  }
}
