#ifndef TOOLS_LADDER_H_
#define TOOLS_LADDER_H_

#include <string>
#include <vector>

#include "tools/exchange_trace.h"

// One line in the drawing of an exchange between two EMs.
struct Rung {
  enum Kind { kMessage, kEvent, kFailure, kLeftOut } kind;
  std::string time;                              // of a message or event
  std::string text;                              // the message or event
  bool to_right = true;                          // from the requester, which is on the left
  bool delivered = true;                         // false: never delivered by the group
  std::string requester_state, responder_state;  // after the message; empty if unknown
};

// The lines of an exchange. Of a long run of successful updates, only the first and last are
// included.
std::vector<Rung> make_rungs(const TracedExchange& exchange);

// The drawing as text or as an SVG picture. `left` and `right` are the names of the EMs. Bytes of
// file names that are not printable are escaped.
std::string draw_text(const std::vector<Rung>& rungs, const std::string& left,
                      const std::string& right);
std::string draw_svg(const std::vector<Rung>& rungs, const std::string& title,
                     const std::string& left, const std::string& right);

// The time of day, "hh:mm:ss" or, if milliseconds are known, "hh:mm:ss.mmm". With `date`, the date
// and the time in whole seconds.
std::string clock_text(double time, bool date);

#endif  // TOOLS_LADDER_H_
