#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <time.h>
#include <unistd.h>

#include "tools/commands.h"
#include "tools/fault_record.h"
#include "tools/output.h"

namespace {

constexpr char kEventDir[] = "/var/run/em/events";
constexpr int kLookAgainMs = 1000;

std::string local_time() {
  const time_t now = time(nullptr);
  tm parts;
  char text[32];
  localtime_r(&now, &parts);
  strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &parts);
  return text;
}

// Waits until the state may have changed. The directory may not exist yet or be replaced. So the
// watch is added again each time (the same directory keeps its one watch), and the wait is short.
void wait_for_event(int inotify_fd) {
  inotify_add_watch(inotify_fd, kEventDir, IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE);
  pollfd readable = {inotify_fd, POLLIN, 0};
  if (poll(&readable, 1, kLookAgainMs) <= 0) return;
  alignas(inotify_event) char events[4096];
  [[maybe_unused]] const ssize_t size = read(inotify_fd, events, sizeof events);
}

}  // namespace

int show_fault(const Options& options, const Words& /*words*/) {
  const FaultState state = read_fault_state();
  if (!state.error.empty()) return report_error(options, state.error);
  if (options.json)
    printf("{%s}\n", fault_json(state).c_str());
  else
    printf("%s\n", fault_text(state).c_str());
  return state.recorded && !state.healthy ? kFailed : kDone;
}

int watch_fault(const Options& options, const Words& /*words*/) {
  const int inotify_fd = inotify_init1(IN_CLOEXEC);
  if (inotify_fd < 0) return report_error(options, std::string("inotify: ") + strerror(errno));
  std::string shown;
  for (;;) {
    const FaultState state = read_fault_state();
    const std::string text = fault_text(state);
    if (text != shown) {
      if (options.json)
        printf("{\"time\":\"%s\",%s}\n", local_time().c_str(), fault_json(state).c_str());
      else
        printf("%s %s\n", local_time().c_str(), printable(text).c_str());
      if (fflush(stdout) != 0) break;
      shown = text;
    }
    wait_for_event(inotify_fd);
  }
  close(inotify_fd);
  return kNoAnswer;
}
