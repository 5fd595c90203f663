// The state in the text format of Prometheus.

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "redundancy_health/frame/state_summary.h"
#include "tools/commands.h"
#include "tools/output.h"
#include "tools/pair_state.h"

namespace {

void add_metric(std::string* text, const std::string& name, const char* type, const char* help,
                const std::string& value, const std::string& labels = "") {
  const std::string full = "cluster_sync_" + name;
  *text += "# HELP " + full + " " + help + "\n# TYPE " + full + " " + type + "\n" + full + labels +
           " " + value + "\n";
}

void add_gauge(std::string* text, const char* name, const char* help, int64_t value) {
  add_metric(text, name, "gauge", help, std::to_string(value));
}

// +Inf if it never happened.
void add_age(std::string* text, const char* name, const char* help, int32_t age) {
  add_metric(text, name, "gauge", help, age < 0 ? "+Inf" : std::to_string(age));
}

void add_counters(std::string* text, const StateRecord& record) {
  for (const auto& [name, value] : counters_of(record))
    add_metric(text, std::string(name) + "_total", "counter",
               "See the statistics in cluster_sync_ctl(1).", std::to_string(value));
}

// A label. The format knows no other escapes than those for a quote and a backslash.
std::string label(const char* name, const char* value) {
  return name + ("=" + json_string(printable(value)));
}

// What has failed, in words. There is no such metric while all is well.
void add_failure(std::string* text, const StateRecord& record) {
  if (!last_exchange_failed(record)) return;
  add_metric(
      text, "failure_info", "gauge", "Why the last exchange failed.", "1",
      "{" + label("reason", record.last_error) + "," + label("cause", record.last_cause) + "}");
}

void add_record(std::string* text, const StateRecord& record) {
  add_metric(text, "info", "gauge", "The version of the daemon.", "1",
             "{" + label("version", record.version) + "}");
  add_gauge(text, "uptime_seconds", "Uptime of the daemon.", record.uptime);
  add_gauge(text, "joined", "Whether the daemon is in the group.", record.joined);
  add_gauge(text, "peer_present", "Whether the other EM is in the group.", record.peer_present);
  add_gauge(text, "members", "Members of the group.", record.member_count);
  add_gauge(text, "both_active", "Whether the last exchange showed two active EMs.",
            record.both_active);
  add_gauge(text, "failing", "Whether the last exchange failed.", last_exchange_failed(record));
  add_failure(text, record);
  add_gauge(text, "consecutive_errors", "Failed exchanges in a row, counted on the active EM.",
            record.consecutive_errors);
  add_gauge(text, "fault", "Whether the data replication fault is reported.", record.fault);
  add_gauge(text, "hung", "Whether replication hangs.", record.hung);
  add_age(text, "heartbeat_age_seconds", "Time since the last heartbeat.", record.heartbeat_age);
  add_age(text, "last_success_age_seconds", "Time since an exchange with the other EM succeeded.",
          record.last_success_age);
  add_age(text, "last_error_age_seconds", "Time since an exchange failed.", record.last_error_age);
  add_age(text, "exchange_state_age_seconds", "How long the exchange has been in its state.",
          record.exchange_state_age);
  add_gauge(text, "exchange_state",
            "0 idle, 1 lock, 2 serving, 3 comparing, 4 updating, 5 release.",
            record.exchange_state);
  add_gauge(text, "waiting_callers", "Callers whose request is not answered yet.", record.waiting);
  add_gauge(text, "recorder_paused",
            "Whether the flight recorder keeps the first error and records no more.",
            record.recorder_paused);
  add_counters(text, record);
}

std::string metrics_text(const PairState& state) {
  std::string text;
  add_gauge(&text, "up", "Whether the daemon answers.", state.error.empty());
  add_gauge(&text, "em_number", "The number of this EM.", state.em);
  add_gauge(&text, "number_valid", "0 when the file with the number holds neither 1 nor 2.",
            state.number_valid);
  add_gauge(&text, "active", "Whether this EM is active.", state.active);
  if (state.error.empty()) add_record(&text, state.record);
  return text;
}

bool write_text(int fd, const std::string& text) {
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                       fchmod(fd, 0644) == 0;
  return close(fd) == 0 && written;
}

// Replaces the file atomically, so that no reader sees a part of it. Returns 0 or an error number.
int replace_file(const std::string& path, const std::string& text) {
  std::string temporary = path + ".XXXXXX";  // does not end with .prom, so the collector ignores it
  const int fd = mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) return errno;
  errno = EIO;
  if (write_text(fd, text) && rename(temporary.c_str(), path.c_str()) == 0) return 0;
  const int error = errno;
  unlink(temporary.c_str());
  return error;
}

}  // namespace

int show_metrics(const Options& options, const Words& /*words*/) {
  if (options.json) return usage_error("metrics does not support --json");
  const PairState state = read_pair_state(options);
  const std::string text = metrics_text(state);
  if (options.textfile.empty()) {
    fputs(text.c_str(), stdout);
  } else {
    const int error = replace_file(options.textfile, text);
    if (error != 0)
      return report_error(options, options.textfile + ": " + strerror(error), kFailed);
  }
  // The exit status does not judge the values.
  return state.error.empty() ? kDone : kNoAnswer;
}
