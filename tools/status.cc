#include <stdio.h>

#include <algorithm>

#include "redundancy_health/frame/state_summary.h"
#include "tools/commands.h"
#include "tools/output.h"
#include "tools/pair_state.h"

namespace {

std::string duration_text(int seconds) {
  if (seconds < 120) return std::to_string(seconds) + " s";
  if (seconds < 2 * 3600) return std::to_string(seconds / 60) + " min";
  if (seconds < 48 * 3600) return std::to_string(seconds / 3600) + " h";
  return std::to_string(seconds / 86400) + " d";
}

size_t known_members(const StateRecord& record) {
  return std::min<size_t>(record.member_count, kStateMembers);
}

std::string daemon_text(const PairState& state) {
  if (!state.error.empty()) return state.error;
  return "answers, pid " + std::to_string(state.daemon_pid) + ", version " +
         printable(state.record.version) + ", up for " + duration_text(state.record.uptime);
}

std::string exchange_text(const StateRecord& record) {
  std::string text = std::string(exchange_state_name(record.exchange_state)) + " for " +
                     duration_text(record.exchange_state_age);
  text += record.last_success_age < 0 ? ", no success with the other EM yet"
                                      : ", last success with the other EM " +
                                            duration_text(record.last_success_age) + " ago";
  if (record.waiting > 0) text += ", " + std::to_string(record.waiting) + " waiting";
  if (record.resync_in > 0)
    text += ", next attempt within " + std::to_string(record.resync_in) + " s";
  if (record.hung)
    text += std::string(", no progress for ") + duration_text(record.heartbeat_age) + ": " +
            activity_name(record.activity);
  return text;
}

std::string error_text(const StateRecord& record) {
  if (record.last_error_age < 0) return "none";
  const std::string error = record.last_error;
  const std::string cause = record.last_cause;
  return duration_text(record.last_error_age) + " ago: " + printable(error) +
         (cause.empty() || cause == error ? "" : "; the cause: " + printable(cause));
}

std::string group_text(const StateRecord& record) {
  std::string text =
      std::to_string(record.member_count) + (record.member_count == 1 ? " member" : " members");
  for (size_t i = 0; i < known_members(record); ++i)
    text += (i == 0 ? ": node " : ", node ") + std::to_string(record.members[i].node) + " pid " +
            std::to_string(record.members[i].pid);
  return text;
}

void print_text(const PairState& state) {
  // A standby EM does not update the state of the fault.
  const char* age =
      state.fault.recorded && !state.active ? ", recorded when this EM was active" : "";
  printf("daemon:   %s\nEM:       %u%s, %s\n", daemon_text(state).c_str(), state.em,
         state.number_valid ? "" : " (/var/run/em/number holds neither 1 nor 2)",
         state.active ? "active" : "standby");
  printf("fault:    %s%s\n", printable(fault_text(state.fault)).c_str(), age);
  if (!state.error.empty()) {
    printf("state:    unknown, the daemon does not answer\n");
    return;
  }
  printf("state:    %s\nexchange: %s\nerror:    %s\ngroup:    %s\n",
         state_summary(state.record).c_str(), exchange_text(state.record).c_str(),
         error_text(state.record).c_str(), group_text(state.record).c_str());
}

// JSON members that are null if the daemon did not answer.
class JsonFields {
 public:
  explicit JsonFields(bool known) : known_(known) {}
  void add(const char* name, const std::string& value) {
    text_ += std::string(",\"") + name + "\":" + (known_ ? value : "null");
  }
  const std::string& text() const {
    return text_;
  }

 private:
  bool known_;
  std::string text_;
};

std::string age_json(int age) {
  return age < 0 ? "null" : std::to_string(age);
}

std::string error_json(const StateRecord& record) {
  if (record.last_error_age < 0) return "null";
  return "{\"text\":" + json_string(record.last_error) +
         ",\"cause\":" + json_string(record.last_cause) +
         ",\"age\":" + std::to_string(record.last_error_age) + "}";
}

std::string members_json(const StateRecord& record) {
  std::string text;
  for (size_t i = 0; i < known_members(record); ++i)
    text += std::string(i == 0 ? "" : ",") + "{\"node\":" + std::to_string(record.members[i].node) +
            ",\"pid\":" + std::to_string(record.members[i].pid) + "}";
  return "[" + text + "]";
}

std::string counters_json(const StateRecord& record) {
  std::string text;
  for (const auto& [name, value] : counters_of(record))
    text += std::string(text.empty() ? "{\"" : ",\"") + name + "\":" + std::to_string(value);
  return text + "}";
}

std::string record_json(const StateRecord& record, bool known) {
  JsonFields fields(known);
  fields.add("members", members_json(record));
  fields.add("version", json_string(record.version));
  fields.add("uptime", std::to_string(record.uptime));
  fields.add("peer_present", json_bool(record.peer_present));
  fields.add("state", json_string(exchange_state_name(record.exchange_state)));
  fields.add("state_age", std::to_string(record.exchange_state_age));
  fields.add("activity", json_string(activity_name(record.activity)));
  fields.add("hung", json_bool(record.hung));
  fields.add("heartbeat_age", std::to_string(record.heartbeat_age));
  fields.add("last_success_age", age_json(record.last_success_age));
  fields.add("last_error", error_json(record));
  fields.add("consecutive_errors", std::to_string(record.consecutive_errors));
  fields.add("resync_in", age_json(record.resync_in));
  fields.add("waiting", std::to_string(record.waiting));
  fields.add("both_active", json_bool(record.both_active));
  fields.add("recorder_paused", json_bool(record.recorder_paused));
  fields.add("counters", counters_json(record));
  return fields.text();
}

void print_json(const PairState& state) {
  const bool answers = state.error.empty();
  printf(
      "{\"daemon\":{\"answers\":%s,\"pid\":%d},\"em\":%u,\"number_valid\":%s,\"active\":%s,"
      "\"fault\":{%s}%s}\n",
      json_bool(answers), static_cast<int>(state.daemon_pid), state.em,
      json_bool(state.number_valid), json_bool(state.active), fault_json(state.fault).c_str(),
      record_json(state.record, answers).c_str());
}

}  // namespace

int show_status(const Options& options, const Words& /*words*/) {
  const PairState state = read_pair_state(options);
  options.json ? print_json(state) : print_text(state);
  return judge(state);
}
