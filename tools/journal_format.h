#ifndef TOOLS_JOURNAL_FORMAT_H_
#define TOOLS_JOURNAL_FORMAT_H_

#include <iosfwd>
#include <string>

// Properties of a log, in addition to its lines.
struct LogSource {
  std::string host;    // that wrote the log, empty if unknown
  std::string unread;  // name of the format, if it is one that cannot be read
};

// Reads the next line. Converts a record of journalctl -o json, json-sse, json-seq and export to
// one line that begins with the time in seconds since 1970. False at the end.
bool next_log_line(std::istream* log, LogSource* source, std::string* line);

#endif  // TOOLS_JOURNAL_FORMAT_H_
