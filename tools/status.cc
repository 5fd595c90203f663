#include <errno.h>
#include <stdio.h>

#include <vector>

#include "platform/em.h"
#include "tools/commands.h"
#include "tools/diagnostic.h"
#include "tools/fault_record.h"
#include "tools/output.h"

namespace {

constexpr int kProbeMs = 5000;

// Without an argument the command changes nothing, logs nothing and is answered at once.
constexpr char kHarmlessCommand[] = "stats";

struct Member {
  unsigned node;
  unsigned pid;
};

struct Group {
  bool known = false;  // the group service answers
  std::vector<Member> members;
};

// Asks Corosync's own tool, which needs no place in the group to list it.
Group read_group() {
  Group group;
  // NOLINTNEXTLINE(cert-env33-c): the command is a constant
  FILE* tool = popen("timeout 5 corosync-cpgtool -d ' ' 2> /dev/null", "re");
  if (tool == nullptr) return group;
  char line[256];
  while (fgets(line, sizeof line, tool) != nullptr) {
    Member member;
    if (sscanf(line, "em-sync %u %u", &member.pid, &member.node) == 2)
      group.members.push_back(member);
  }
  group.known = pclose(tool) == 0;
  return group;
}

std::string group_text(const Group& group) {
  if (!group.known) return "unknown, Corosync does not answer";
  std::string text =
      std::to_string(group.members.size()) + (group.members.size() == 1 ? " member" : " members");
  const char* separator = ": ";
  for (const Member& member : group.members) {
    text += separator;
    text += "node " + std::to_string(member.node) + " pid " + std::to_string(member.pid);
    separator = ", ";
  }
  return text;
}

std::string group_json(const Group& group) {
  if (!group.known) return "null";
  std::string text;
  for (const Member& member : group.members) {
    if (!text.empty()) text += ',';
    text +=
        "{\"node\":" + std::to_string(member.node) + ",\"pid\":" + std::to_string(member.pid) + "}";
  }
  return "[" + text + "]";
}

std::string daemon_text(const Options& options, const DiagnosticAnswer& answer) {
  if (answer.error != 0 && answer.error != ECANCELED)
    return client_error_text(options, answer.error);
  if (answer.error != 0) return "refuses with status " + std::to_string(answer.status);
  return "answers, pid " + std::to_string(answer.daemon_pid);
}

}  // namespace

int show_status(const Options& options, const Words& /*words*/) {
  Options probe = options;
  if (probe.timeout_ms > kProbeMs) probe.timeout_ms = kProbeMs;
  const DiagnosticAnswer answer = ask_diagnostic(probe, kHarmlessCommand);
  const bool answers = answer.error == 0;
  const FaultState fault = read_fault_state();
  const Group group = read_group();
  const unsigned em = 3 - get_my_mate_em_num();
  const bool active = this_em_is_active();

  // Only the active EM tells the state of the fault: what a standby one holds is of earlier.
  const char* age = fault.recorded && !active ? ", recorded when this EM was active" : "";

  if (options.json) {
    printf(
        "{\"daemon\":{\"answers\":%s,\"pid\":%d},\"em\":%u,\"active\":%s,\"fault\":{%s},"
        "\"members\":%s}\n",
        json_bool(answers), static_cast<int>(answer.daemon_pid), em, json_bool(active),
        fault_json(fault).c_str(), group_json(group).c_str());
  } else {
    printf("daemon: %s\nEM:     %u, %s\nfault:  %s%s\ngroup:  %s\n",
           daemon_text(probe, answer).c_str(), em, active ? "active" : "standby",
           printable(fault_text(fault)).c_str(), age, group_text(group).c_str());
  }
  if (!answers || !fault.error.empty()) return kNoAnswer;
  const bool alone = group.known && group.members.size() < 2;
  return (active && fault.recorded && !fault.healthy) || alone ? kFailed : kDone;
}
