#include "redundancy_health/frame/check.h"

#include <errno.h>
#include <stdlib.h>

#include "platform/util.h"

void check_failed(const char* file, int line, const char* function, const char* expression,
                  int value) {
  DbgOutput(file, line, function, 3, "EXCEPTION: %s = %d", expression, value);
  abort();
}

void check_failed_null(const char* file, int line, const char* function, const char* expression) {
  DbgOutput(file, line, function, 3, "EXCEPTION: %s is NULL", expression);
  abort();
}

void check_failed_close(const char* file, int line, const char* function, const char* expression,
                        int value) {
  const int error = errno;
  if (error == EBADF) {
    DbgOutput(file, line, function, 3, "EXCEPTION: %s ended with EBADF", expression);
    abort();
  }
  DbgOutput(file, line, function, 3, "%s = %d; errno=%d", expression, value, error);
  errno = error;
}
