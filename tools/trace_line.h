#ifndef TOOLS_TRACE_LINE_H_
#define TOOLS_TRACE_LINE_H_

#include <functional>
#include <iosfwd>
#include <string>

#include "tools/journal_format.h"

// One log call of the daemon.
struct TraceLine {
  double time = 0;       // seconds since 1970 or since boot; 0 if unknown
  std::string function;  // that wrote the line
  std::string text;
};

// Smaller times are seconds since boot.
constexpr double kFirstDate = 1e8;

// Receives the lines of a log in order. Lines dumped by the flight recorder (`recorded`) are
// separate from the others.
using TakeTraceLine = std::function<void(const TraceLine& line, bool recorded)>;

// Reads a log of the daemon to its end: the journal or syslog, the private log or standard output,
// with or without dumps of the flight recorder. Skips lines that the daemon did not write, repeated
// lines of overlapping dumps, and every dump after the first message of the log itself. Returns
// false if the level of the log was too low for messages; then only the recorded lines are useful.
bool read_trace(std::istream* log, LogSource* source, const TakeTraceLine& take);

#endif  // TOOLS_TRACE_LINE_H_
