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

// Reads a log of the daemon to its end: the journal or syslog, the private log, standard output, or
// a dump of the flight recorder in one of them. What the daemon did not write is passed over, and
// so are dumped lines that the log has already.
std::vector<TraceLine> read_trace(std::istream* log);

#endif  // TOOLS_TRACE_LINE_H_
