#ifndef FRAME_DIAG_PARAMS_H_
#define FRAME_DIAG_PARAMS_H_

#include <stdint.h>

#include "platform/mutex.h"

constexpr unsigned kFaultPathSize = 100;  // longer paths are cut to 99 bytes

// Settings for diagnosis and fault injection, changed by diagnostic commands at run time.
struct DiagParams {
  Mutex mutex;  // held for a single read or write
  // Every group send fails.
  uint8_t cpg_send_fail GUARDED_BY(mutex);
  // The state machine ignores every event.
  uint8_t statemachine_stuck GUARDED_BY(mutex);
  // Paths of files, empty for none. The scan cannot open this file.
  char fail_scan_path[kFaultPathSize] GUARDED_BY(mutex);
  // No outgoing chunk of this file can be read.
  char fail_read_path[kFaultPathSize] GUARDED_BY(mutex);
  // This file cannot be replaced as a whole.
  char fail_write_path[kFaultPathSize] GUARDED_BY(mutex);
  // No local request can rename a file onto this path.
  char fail_rename_path[kFaultPathSize] GUARDED_BY(mutex);
  // The next exchange may delete any number of files.
  uint8_t allow_deletions GUARDED_BY(mutex);
  // In bytes, compared unsigned; 0 = no private log file.
  int32_t max_log_size GUARDED_BY(mutex);
};

extern DiagParams g_diag_params;

// True, with errno EDOM, when `fault_path` (a path of g_diag_params) is set and equals `path` byte
// for byte. Any thread; takes the mutex.
bool have_error_injection(const char* fault_path, const char* path);

#endif  // FRAME_DIAG_PARAMS_H_
