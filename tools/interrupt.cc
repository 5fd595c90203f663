#include "tools/interrupt.h"

#include <errno.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <initializer_list>

namespace {

constexpr time_t kChildSeconds = 2;

volatile sig_atomic_t g_signal = 0;
sigset_t g_mask_before;

void note_signal(int number) {
  g_signal = number;
}

int64_t now_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

void hold_signals() {
  static bool held = false;
  if (held) return;
  held = true;
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
    struct sigaction action;
    sigaction(number, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;  // ignored, as by nohup(1)
    sigaddset(&signals, number);
    action = {};
    action.sa_handler = note_signal;
    sigaction(number, &action, nullptr);
  }
  sigprocmask(SIG_BLOCK, &signals, &g_mask_before);
}

int signal_that_came() {
  return g_signal;
}

void end_by_signal() {
  if (g_signal == 0) return;
  signal(g_signal, SIG_DFL);
  sigprocmask(SIG_SETMASK, &g_mask_before, nullptr);
  raise(g_signal);
}

int wait_readable(int fd, int64_t* left_ms) {
  const int64_t start = now_ms();
  const timespec limit = {static_cast<time_t>(*left_ms / 1000),
                          static_cast<long>(*left_ms % 1000 * 1000000)};
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  // Not ppoll(2): on 32-bit machines, glibc 2.36 with _FORTIFY_SOURCE misreads its 64-bit time.
  const int ready = pselect(fd + 1, &readable, nullptr, nullptr, &limit, &g_mask_before);
  if (g_signal != 0) return EINTR;
  *left_ms -= now_ms() - start;
  if (*left_ms < 0) *left_ms = 0;
  return ready > 0 ? 0 : ready == 0 ? ETIMEDOUT : errno;
}

int run_in_foreground(const char* command) {
  hold_signals();
  sigset_t awaited;
  sigset_t before;
  sigemptyset(&awaited);
  for (const int number : {SIGHUP, SIGINT, SIGTERM, SIGCHLD})
    sigaddset(&awaited, number);
  sigprocmask(SIG_BLOCK, &awaited, &before);
  const pid_t child = fork();
  if (child == 0) {
    sigprocmask(SIG_SETMASK, &g_mask_before, nullptr);
    execl("/bin/sh", "sh", "-c", command, nullptr);
    _exit(127);
  }
  int status = -1;
  while (child > 0 && waitpid(child, &status, WNOHANG) == 0) {
    status = -1;
    const timespec patience = {kChildSeconds, 0};
    const int number =
        g_signal == 0 ? sigwaitinfo(&awaited, nullptr) : sigtimedwait(&awaited, nullptr, &patience);
    if (number < 0 && errno == EAGAIN) break;
    if (number != SIGHUP && number != SIGTERM) continue;
    g_signal = number;
    kill(child, number);
  }
  sigprocmask(SIG_SETMASK, &before, nullptr);
  return status;
}
