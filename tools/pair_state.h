#ifndef TOOLS_PAIR_STATE_H_
#define TOOLS_PAIR_STATE_H_

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "redundancy_health/frame/state_record.h"
#include "tools/commands.h"
#include "tools/fault_record.h"

// What can be known of replication on this EM, with the daemon or without.
struct PairState {
  std::string error;     // why the daemon does not tell; empty when it does
  pid_t daemon_pid = 0;  // both of a daemon that tells
  StateRecord record = {};
  FaultState fault;  // the last one that was sent as an event
  unsigned em = 0;   // from here on also without the daemon
  bool number_valid = false;
  bool active = false;
};

PairState read_pair_state(const Options& options);

// What the exit status of a command says of the state.
ExitStatus judge(const PairState& state);

// The state of the exchange as a word, "idle" and the like.
const char* exchange_state_name(uint32_t state);

// Names and values of the counters, in their order.
std::vector<std::pair<const char*, uint64_t>> counters_of(const StateRecord& record);

#endif  // TOOLS_PAIR_STATE_H_
