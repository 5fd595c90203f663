#ifndef TOOLS_FAULT_RECORD_H_
#define TOOLS_FAULT_RECORD_H_

#include <stdint.h>

#include <string>

// The last state of the replication fault that the daemon has told.
struct FaultState {
  std::string error;  // why there is none to show; empty otherwise
  bool recorded = false;
  bool healthy = false;  // both only when one is recorded
  uint32_t peer_em = 0;
};

FaultState read_fault_state();

// "replication with EM 2 is failing" and the like.
std::string fault_text(const FaultState& state);

// The members of a JSON object, without its braces.
std::string fault_json(const FaultState& state);

#endif  // TOOLS_FAULT_RECORD_H_
