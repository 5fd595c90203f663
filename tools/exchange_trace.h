#ifndef TOOLS_EXCHANGE_TRACE_H_
#define TOOLS_EXCHANGE_TRACE_H_

#include <stdint.h>

#include <array>
#include <set>
#include <string>
#include <vector>

#include "tools/trace_line.h"

// One group message, or an event between two of them.
struct TraceStep {
  double time = 0;
  std::string message;          // "MSG_LOCK_REQ", "ON_CPG_LEFT"
  uint32_t sequence_id = 0;     // of the message
  bool by_requester = true;     // who sent it
  bool delivered = true;        // false: sent, but the group never brought it back
  int64_t bytes = -1;           // of its payload, -1 when the log does not say
  std::string what;             // of an update: "PUSH_REQ name"
  std::string requester_state;  // after it, where the log says so
  std::string responder_state;
  std::vector<std::string> failures;  // texts of the errors that followed it
};

// Files that an exchange moved in one direction.
struct Moved {
  std::set<std::string> paths;
  uint64_t bytes = 0;
};

enum MoveKind { kPushed, kPulled, kDeleted, kMoveKinds };

// An exchange as the log of one EM, or those of both, tell it.
struct TracedExchange {
  int requester = 0;  // index of the log whose EM asked; 1 - index when it is the other log's
  uint32_t id = 0;
  double begin = 0;
  double end = 0;
  std::string why;       // a request, a join, a resync; empty when the log does not say
  bool complete = true;  // false: the log begins in the middle of it
  bool ended = false;
  bool gave_way = false;  // lost the lock to an exchange of the other EM
  std::array<Moved, kMoveKinds> moved;
  std::vector<TraceStep> steps;
  std::string failure;  // its first error
};

// The exchanges of a log, in its order; `log` is its index, 0 or 1.
std::vector<TracedExchange> find_exchanges(const std::vector<TraceLine>& lines, int log);

// Joins those that the logs of both EMs tell, in the order of their times.
std::vector<TracedExchange> join_exchanges(std::vector<TracedExchange> first,
                                           std::vector<TracedExchange> second);

#endif  // TOOLS_EXCHANGE_TRACE_H_
