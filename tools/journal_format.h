#ifndef TOOLS_JOURNAL_FORMAT_H_
#define TOOLS_JOURNAL_FORMAT_H_

#include <iosfwd>
#include <string>

// What a log looked like beside its lines.
struct LogSource {
  std::string host;    // that wrote it, empty when the log does not say
  std::string unread;  // a format that it seems to have and that is not read
};

// Reads the next line. What journalctl writes with -o json, json-sse, json-seq and export becomes
// one line a record, with the time in seconds since 1970 at its head. False at the end.
bool next_log_line(std::istream* log, LogSource* source, std::string* line);

#endif  // TOOLS_JOURNAL_FORMAT_H_
