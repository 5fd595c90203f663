#ifndef TOOLS_EXCHANGE_TRACE_H_
#define TOOLS_EXCHANGE_TRACE_H_

#include <stdint.h>

#include <array>
#include <forward_list>
#include <string>
#include <string_view>
#include <vector>

#include "tools/trace_line.h"

// One group message, or an event between two of them. Names are interned.
struct TraceStep {
  double time = 0;
  std::string_view message;          // "MSG_LOCK_REQ", "ON_CPG_LEFT"
  uint32_t sequence_id = 0;          // of the message
  bool by_requester = true;          // the requester sent it
  bool delivered = true;             // false: sent, but never delivered by the group
  int64_t bytes = -1;                // of its payload, -1 if unknown
  std::string what;                  // of an update: "PUSH_REQ name"
  std::string_view requester_state;  // after the message, if known
  std::string_view responder_state;
  size_t left_out = 0;                      // messages before this one that are not stored
  std::forward_list<std::string> failures;  // errors that followed the message
};

// Files that an exchange moved in one direction.
struct Moved {
  std::vector<size_t> paths;  // a number for each path; adjacent repetitions removed
  uint64_t bytes = 0;
};

enum MoveKind { kPushed, kPulled, kDeleted, kMoveKinds };

// An exchange, as recorded in the log of one EM or of both.
struct TracedExchange {
  int requester = 0;  // index of the log of the requester; 1 - index if that is the other log
  uint32_t id = 0;
  double begin = 0;
  double end = 0;
  std::string why;       // a request, a join, a resync; empty if unknown
  bool complete = true;  // false: the log begins in the middle of the exchange
  bool ended = false;
  bool gave_way = false;  // lost the lock to the other EM
  std::array<Moved, kMoveKinds> moved;
  std::vector<TraceStep> steps;
  std::string failure;  // its first error
};

// The state of reading one log.
struct TraceReader {
  int log;
  std::vector<TracedExchange> found = {};
  bool open = false;          // found.back() has not ended
  size_t handled = SIZE_MAX;  // index of the step in found.back() between "Enter" and "Exit"
  std::string why = {};       // for the next exchange of this EM
  std::string what = {};      // for the next message sent
};

// Processes the next line of a log. The reader's `log` is the index of the log, 0 or 1. Of a long
// run of successful updates, only the first and last are stored.
void take_trace_line(TraceReader* reader, const TraceLine& line);

// The exchanges of both logs, ordered by time. Times are by the first EM's clock.
struct JoinedExchanges {
  std::vector<TracedExchange> all;
  double clock_ahead = 0;  // seconds that the second EM's clock is ahead, if known
};

JoinedExchanges join_exchanges(std::vector<TracedExchange> first,
                               std::vector<TracedExchange> second);

#endif  // TOOLS_EXCHANGE_TRACE_H_
