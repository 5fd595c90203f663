#ifndef TOOLS_PAIR_STATE_H_
#define TOOLS_PAIR_STATE_H_

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "redundancy_health/frame/state_record.h"
#include "tools/commands.h"
#include "tools/fault_record.h"

// The state of replication on this EM, with or without an answer of the daemon.
struct PairState {
  std::string error;     // why the daemon did not answer; empty if it did
  pid_t daemon_pid = 0;  // this and `record` are valid only if the daemon answered
  StateRecord record = {};
  FaultState fault;  // last recorded state
  unsigned em = 0;   // this and the following do not need the daemon
  bool number_valid = false;
  bool active = false;
};

PairState read_pair_state(const Options& options);

// The exit status for a state.
ExitStatus judge(const PairState& state);

// The name of the state of the exchange, such as "idle".
const char* exchange_state_name(uint32_t state);

// Names and values of the counters, in wire order.
std::vector<std::pair<const char*, uint64_t>> counters_of(const StateRecord& record);

#endif  // TOOLS_PAIR_STATE_H_
