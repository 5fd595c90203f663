#ifndef TOOLS_EXCHANGE_TRACE_H_
#define TOOLS_EXCHANGE_TRACE_H_

#include <stdint.h>

#include <array>
#include <forward_list>
#include <string>
#include <string_view>
#include <vector>

#include "tools/trace_line.h"

// One group message, or an event between two of them. Its names are kept once for all.
struct TraceStep {
  double time = 0;
  std::string_view message;          // "MSG_LOCK_REQ", "ON_CPG_LEFT"
  uint32_t sequence_id = 0;          // of the message
  bool by_requester = true;          // who sent it
  bool delivered = true;             // false: sent, but the group never brought it back
  int64_t bytes = -1;                // of its payload, -1 when the log does not say
  std::string what;                  // of an update: "PUSH_REQ name"
  std::string_view requester_state;  // after it, where the log says so
  std::string_view responder_state;
  size_t left_out = 0;                      // messages before it that are not kept
  std::forward_list<std::string> failures;  // texts of the errors that followed it
};

// Files that an exchange moved in one direction.
struct Moved {
  std::vector<size_t> paths;  // a number for each, one after the other without repetition
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

// What is known at one line of a log.
struct TraceReader {
  int log;
  std::vector<TracedExchange> found = {};
  bool open = false;          // found.back() goes on
  size_t handled = SIZE_MAX;  // the step of found.back() between "Enter" and "Exit"
  std::string why = {};       // of the next exchange of this EM
  std::string what = {};      // of the next message sent
};

// Reads the next line of a log. `log` of the reader is the log's index, 0 or 1. Of a long run of
// updates that went well only the ends are kept.
void take_trace_line(TraceReader* reader, const TraceLine& line);

// The exchanges that the logs of both EMs tell, in the order of their times by the first one's
// clock.
struct JoinedExchanges {
  std::vector<TracedExchange> all;
  double clock_ahead = 0;  // seconds that the second EM's clock is ahead, where it can be known
};

JoinedExchanges join_exchanges(std::vector<TracedExchange> first,
                               std::vector<TracedExchange> second);

#endif  // TOOLS_EXCHANGE_TRACE_H_
