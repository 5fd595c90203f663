#include "redundancy_health/frame/check.h"

#include <errno.h>
#include <stdlib.h>

#include <new>

#include "platform/util.h"

namespace {

// Freed for the last log line of a process without memory. Smaller than a mapped block, so that
// free() returns it to the heap.
void* g_reserve = nullptr;

[[noreturn]] void fail_new() {
  std::set_new_handler(nullptr);
  free(g_reserve);
  check_failed_null(__FILE__, __LINE__, __func__, "operator new");
}

}  // namespace

void install_out_of_memory_check() {
  g_reserve = malloc(size_t{64} * 1024);
  std::set_new_handler(fail_new);
}

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
