#ifndef FRAME_DIAG_PARAMS_H_
#define FRAME_DIAG_PARAMS_H_

#include <pthread.h>
#include <stdint.h>

constexpr unsigned kFaultPathSize = 100;  // longer paths are stored cut to 99 bytes

// Diagnostic and fault-injection settings, changed by diagnostic commands at run time.
struct DiagParams {
  pthread_mutex_t mutex;                  // guards every field, held for a single read or write
  uint8_t cpg_send_fail;                  // every group send fails
  uint8_t statemachine_stuck;             // the state machine ignores every event
  char fail_scan_path[kFaultPathSize];    // the scan cannot open this file; empty = off
  char fail_read_path[kFaultPathSize];    // no outgoing chunk of this file can be read
  char fail_write_path[kFaultPathSize];   // this file cannot be replaced as a whole
  char fail_rename_path[kFaultPathSize];  // no local request can rename onto this path
  int32_t max_log_size;                   // bytes, compared unsigned; 0 = no private log file
};

extern DiagParams g_diag_params;

// True, with errno EDOM, when `fault_path` (a path of g_diag_params) is set and equals `path` byte
// for byte. Any thread; takes the mutex.
bool have_error_injection(const char* fault_path, const char* path);

#endif  // FRAME_DIAG_PARAMS_H_
