#include "tests/unit/call_hook.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

std::function<int(const std::string&)> g_before_call;

namespace {

bool fails(const char* name) {
  if (!g_before_call) return false;
  const auto hook = std::exchange(g_before_call, nullptr);  // not for its own calls
  const int error = hook(name);
  if (!g_before_call) g_before_call = hook;
  if (error != 0) errno = error;
  return error != 0;
}

template <typename Function>
Function* real(const char* symbol) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}

}  // namespace

// Replace functions of the C library.
extern "C" {

int open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const auto mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  return fails(path) ? -1 : real<int(const char*, int, ...)>("open64")(path, flags, mode);
}

int openat(int dir, const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const auto mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  return fails(path) ? -1
                     : real<int(int, const char*, int, ...)>("openat64")(dir, path, flags, mode);
}

int unlinkat(int dir, const char* path, int flags) noexcept {
  return fails(path) ? -1 : real<int(int, const char*, int)>("unlinkat")(dir, path, flags);
}

int renameat(int from_dir, const char* from, int to_dir, const char* to) noexcept {
  return fails(from) ? -1
                     : real<int(int, const char*, int, const char*)>("renameat")(from_dir, from,
                                                                                 to_dir, to);
}

int mkdirat(int dir, const char* path, mode_t mode) noexcept {
  return fails(path) ? -1 : real<int(int, const char*, mode_t)>("mkdirat")(dir, path, mode);
}

int closedir(DIR* dir) {
  const int r = real<int(DIR*)>("closedir")(dir);
  return fails("") ? -1 : r;
}
}
