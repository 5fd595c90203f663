#ifndef TOOLS_FAULT_RECORD_H_
#define TOOLS_FAULT_RECORD_H_

#include <stdint.h>

#include <string>

// The last recorded state of the replication fault.
struct FaultState {
  std::string error;  // why the state cannot be read; empty otherwise
  bool recorded = false;
  bool healthy = false;  // this and peer_em are valid only if recorded
  uint32_t peer_em = 0;
};

FaultState read_fault_state();

// The state in words, such as "replication with EM 2 is failing".
std::string fault_text(const FaultState& state);

// The members of a JSON object, without braces.
std::string fault_json(const FaultState& state);

#endif  // TOOLS_FAULT_RECORD_H_
