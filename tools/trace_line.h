#ifndef TOOLS_TRACE_LINE_H_
#define TOOLS_TRACE_LINE_H_

#include <functional>
#include <iosfwd>
#include <string>

#include "tools/journal_format.h"

// What the daemon wrote with one call.
struct TraceLine {
  double time = 0;       // seconds since 1970, or since the boot; 0 when the log does not say
  std::string function;  // that wrote it
  std::string text;
};

// Times below this one are seconds since the boot.
constexpr double kFirstDate = 1e8;

// Takes the lines of a log in their order, those that the flight recorder dumped (`recorded`) apart
// from the others.
using TakeTraceLine = std::function<void(const TraceLine& line, bool recorded)>;

// Reads a log of the daemon to its end: the journal or syslog, the private log, standard output,
// with dumps of the flight recorder in it or nothing else. What the daemon did not write is passed
// over, and so is what several dumps hold, but for the first time, and every dump that comes after
// the first message of the log itself. False when the log's level was too low for messages: only
// the recorded lines tell something then.
bool read_trace(std::istream* log, LogSource* source, const TakeTraceLine& take);

#endif  // TOOLS_TRACE_LINE_H_
