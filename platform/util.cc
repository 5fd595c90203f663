#include "platform/util.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>

#include "platform/escape.h"

namespace {

constexpr int kDefaultLogLevel = 6;
constexpr int kLogLevelUnread = -1;
constexpr size_t kThreadStackSize = size_t{4} * 1024 * 1024;
constexpr size_t kThreadNameSize = 16;  // the kernel's limit, including the NUL
constexpr int kCannotStart = 127;

std::atomic<int> g_log_level{kLogLevelUnread};
std::atomic<bool> g_log_to_stdout{false};

// Name of a thread started by Create_Thread; empty in every other thread.
thread_local char t_thread_name[kThreadNameSize];

struct ThreadStart {
  void* (*function)(void*);
  void* argument;
  char name[kThreadNameSize];
};

int read_log_level() {
  const char* text = getenv("BREL_LOG_LEVEL");
  char* end = nullptr;
  const long value = text != nullptr ? strtol(text, &end, 10) : kDefaultLogLevel;
  const bool valid = text == nullptr || (end != text && *end == '\0');
  const int level = valid ? static_cast<int>(std::clamp(value, 0L, 7L)) : kDefaultLogLevel;
  g_log_level.store(level, std::memory_order_relaxed);
  return level;
}

bool level_is_logged(int level) {
  const int threshold = g_log_level.load(std::memory_order_relaxed);
  return level <= (threshold == kLogLevelUnread ? read_log_level() : threshold);
}

void write_to_stdout(int level, const char* function, int line, const std::string& text) {
  std::string whole = "<";
  whole += std::to_string(level) + "> " + function + ":" + std::to_string(line) + ": ";
  whole += text;
  whole += '\n';
  // Ignore errors: a failed log line must not stop the daemon.
  [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, whole.data(), whole.size());
}

void* run_thread(void* argument) {
  ThreadStart* start = static_cast<ThreadStart*>(argument);
  const ThreadStart copy = *start;
  delete start;
  memcpy(t_thread_name, copy.name, sizeof t_thread_name);
  pthread_setname_np(pthread_self(), copy.name);
  return copy.function(copy.argument);
}

}  // namespace

void DbgOutput(const char* file, int line, const char* function, int level, const char* format,
               ...) {
  (void)file;  // the line has the function and line number instead
  if (!level_is_logged(level)) return;
  const int saved_errno = errno;
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  pthread_once(&once, [] { openlog("CLUS_SYNC", LOG_PID, LOG_DAEMON); });

  char* text = nullptr;
  va_list args;
  va_start(args, format);
  const int length = vasprintf(&text, format, args);
  va_end(args);
  if (length >= 0) {
    const std::string escaped = escape_control_bytes(text);
    free(text);
    syslog(LOG_PRI(level), "%s:%d: %s", function, line, escaped.c_str());
    if (g_log_to_stdout.load(std::memory_order_relaxed))
      write_to_stdout(level, function, line, escaped);
  }
  errno = saved_errno;
}

void debug_log_to_stdout(int enable) {
  read_log_level();
  if (enable != 0) signal(SIGPIPE, SIG_IGN);  // the reader may have exited
  g_log_to_stdout.store(enable != 0, std::memory_order_relaxed);
}

int Create_Thread(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                  void* argument, const char* name) {
  pthread_attr_t own_attributes;
  int rc = pthread_attr_init(&own_attributes);
  if (rc != 0) return rc;
  size_t stack_size = 0;
  pthread_attr_getstacksize(&own_attributes, &stack_size);
  rc = pthread_attr_setstacksize(&own_attributes, std::max(stack_size, kThreadStackSize));
  if (rc == 0) {
    ThreadStart* start = new ThreadStart{function, argument, {}};
    snprintf(start->name, sizeof start->name, "%s", name);
    rc = pthread_create(thread, attributes != nullptr ? attributes : &own_attributes, run_thread,
                        start);
    if (rc != 0) delete start;
  }
  pthread_attr_destroy(&own_attributes);
  return rc;
}

void GetThreadName(char* buffer, size_t size) {
  if (size == 0) return;
  char name[kThreadNameSize] = "";
  if (t_thread_name[0] != '\0')
    memcpy(name, t_thread_name, sizeof name);
  else
    pthread_getname_np(pthread_self(), name, sizeof name);
  const size_t length = std::min(strlen(name), size - 1);
  memcpy(buffer, name, length);
  buffer[length] = '\0';
}

int _brel_cond_init(pthread_cond_t* cond) {
  pthread_condattr_t attributes;
  int rc = pthread_condattr_init(&attributes);
  if (rc != 0) return rc;
  rc = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  if (rc == 0) rc = pthread_cond_init(cond, &attributes);
  pthread_condattr_destroy(&attributes);
  return rc;
}

int execute_normal(const char* const argv[]) {
  if (argv[0] == nullptr) return kCannotStart;
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) return kCannotStart;
  pid_t pid = 0;
  int rc = posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  if (rc == 0)
    rc = posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return kCannotStart;

  int status = 0;
  pid_t ended;
  do {
    ended = waitpid(pid, &status, 0);
  } while (ended < 0 && errno == EINTR);
  if (ended < 0) return kCannotStart;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
