#include "redundancy_health/frame/state_summary.h"

#include <stdio.h>

#include "platform/em.h"

namespace {

// Escaped, because a service manager refuses a status that is not UTF-8.
std::string visible(const char* text) {
  std::string shown;
  for (; *text != '\0'; ++text) {
    char bytes[8];
    const bool plain = *text >= ' ' && *text <= '~';
    snprintf(bytes, sizeof bytes, plain ? "%c" : "\\x%02x", static_cast<unsigned char>(*text));
    shown += bytes;
  }
  return shown;
}

void add_problem(std::string* problems, const std::string& text) {
  *problems += (problems->empty() ? "" : ", ") + text;
}

std::string problems_of(const StateRecord& state) {
  std::string problems;
  if (state.hung)
    add_problem(&problems, std::string("replication hangs: ") + activity_name(state.activity));
  if (!state.joined) add_problem(&problems, "not in the group yet");
  if (state.joined && !state.peer_present) add_problem(&problems, "the other EM is away");
  if (state.both_active) add_problem(&problems, "both EMs are active");
  if (state.number_source == kNumberInvalid)
    add_problem(&problems, "the number of this EM is neither 1 nor 2");
  if (last_exchange_failed(state))
    add_problem(&problems, "replication fails: " + visible(state.last_error));
  return problems;
}

}  // namespace

const char* activity_name(uint32_t activity) {
  static const char* const names[] = {
      "at rest", "listing", "hashing", "comparing", "writing", "waiting for the medium", "reading"};
  return activity < sizeof(names) / sizeof(names[0]) ? names[activity] : "unknown";
}

bool last_exchange_failed(const StateRecord& state) {
  if (state.fault || state.consecutive_errors > 0) return true;
  return state.last_error_age >= 0 &&
         (state.last_success_age < 0 || state.last_error_age < state.last_success_age);
}

bool state_is_well(const StateRecord& state) {
  return problems_of(state).empty();
}

std::string state_summary(const StateRecord& state) {
  const std::string problems = problems_of(state);
  return std::string(state.active ? "active, " : "standby, ") +
         (problems.empty() ? "all is well" : problems);
}
