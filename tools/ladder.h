#ifndef TOOLS_LADDER_H_
#define TOOLS_LADDER_H_

#include <string>
#include <vector>

#include "tools/exchange_trace.h"

// One line of a drawing of an exchange between its two EMs.
struct Rung {
  enum Kind { kMessage, kEvent, kFailure, kLeftOut } kind;
  std::string time;                              // of a message or event
  std::string text;                              // what was sent, what happened
  bool to_right = true;                          // from the requester, who stands on the left
  bool delivered = true;                         // false: it never came back from the group
  std::string requester_state, responder_state;  // afterwards, empty when not known
};

// The rungs of an exchange from its first to its last message. Of a long run of updates that went
// well only the ends are there.
std::vector<Rung> make_rungs(const TracedExchange& exchange);

// The drawing as text, and as an SVG picture; `left` and `right` name the EMs. Bytes of file names
// that could do anything else than be read are escaped.
std::string draw_text(const std::vector<Rung>& rungs, const std::string& left,
                      const std::string& right);
std::string draw_svg(const std::vector<Rung>& rungs, const std::string& title,
                     const std::string& left, const std::string& right);

// The time of day, "hh:mm:ss" or, where it is known, "hh:mm:ss.mmm"; with `date` behind the date
// and in whole seconds.
std::string clock_text(double time, bool date);

#endif  // TOOLS_LADDER_H_
