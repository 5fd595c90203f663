#ifndef TOOLS_TRACE_LINE_H_
#define TOOLS_TRACE_LINE_H_

#include <iosfwd>
#include <string>
#include <vector>

// What the daemon wrote with one call.
struct TraceLine {
  double time = 0;       // seconds since 1970; 0 when the log does not say
  std::string function;  // that wrote it
  std::string text;
};

// A log as its lines in order.
struct Trace {
  std::vector<TraceLine> recorded;  // by the flight recorder, dumped before `logged` begins
  std::vector<TraceLine> logged;    // none when the log's level was too low for the messages
};

// Reads a log of the daemon to its end: the journal or syslog, the private log, standard output,
// with dumps of the flight recorder in it or nothing else. What the daemon did not write is passed
// over, and so is what several dumps hold, but for the first time.
Trace read_trace(std::istream* log);

#endif  // TOOLS_TRACE_LINE_H_
