#include "redundancy_health/frame/diag_params.h"

#include <errno.h>
#include <string.h>

#include "redundancy_health/frame/checked_lock.h"

DiagParams g_diag_params = {PTHREAD_MUTEX_INITIALIZER, 0, 0, "", "", "", "", 0, 0};

bool have_error_injection(const char* fault_path, const char* path) {
  HOLD_MUTEX(g_diag_params.mutex);
  const bool match = fault_path[0] != '\0' && strcmp(fault_path, path) == 0;
  if (match) errno = EDOM;
  return match;
}
