#include "tools/trace_line.h"

#include <ctype.h>
#include <stdlib.h>
#include <time.h>

#include <istream>
#include <set>

namespace {

constexpr double kFirstTime = 1e8;  // a smaller number at the head of a line is no time
constexpr time_t kDay = time_t{24} * 60 * 60;

bool is_name(char c) {
  return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// Finds "function:line: " in front of a text. Returns the index of the text, npos when there is
// none; what stands before `*name` is the logger's.
size_t find_text(const std::string& line, size_t* name, size_t* name_end) {
  for (size_t colon = line.find(": "); colon != std::string::npos;
       colon = line.find(": ", colon + 1)) {
    size_t at = colon;
    while (at > 0 && is_digit(line[at - 1]))
      --at;
    if (at == colon || at < 2 || line[at - 1] != ':') continue;
    *name_end = --at;
    while (at > 0 && is_name(line[at - 1]))
      --at;
    if (at == *name_end || is_digit(line[at]) || (at > 0 && line[at - 1] != ' ')) continue;
    *name = at;
    return colon + 2;
  }
  return std::string::npos;
}

// The time at the head of a line: seconds since 1970 (private log, short-unix), an ISO date, or
// the date of syslog, which has no year: the last such day.
double parse_time(const std::string& line) {
  char* end = nullptr;
  const double number = strtod(line.c_str(), &end);
  if (number >= kFirstTime) return number;
  const time_t now = time(nullptr);
  tm date = {};
  localtime_r(&now, &date);
  const char* rest = strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &date);
  const bool has_year = rest != nullptr;
  if (!has_year) rest = strptime(line.c_str(), "%b %d %H:%M:%S", &date);
  if (rest == nullptr) return 0;
  date.tm_isdst = -1;
  time_t seconds = mktime(&date);
  if (!has_year && seconds > now + kDay) {
    --date.tm_year;
    date.tm_isdst = -1;
    seconds = mktime(&date);
  }
  return static_cast<double>(seconds) + (*rest == '.' ? strtod(rest, nullptr) : 0);
}

bool parse_line(const std::string& line, TraceLine* parsed) {
  size_t name = 0;
  size_t name_end = 0;
  const size_t text = find_text(line, &name, &name_end);
  if (text == std::string::npos) return false;
  parsed->time = parse_time(line);
  parsed->function = line.substr(name, name_end - name);
  parsed->text = line.substr(text);
  return true;
}

}  // namespace

std::vector<TraceLine> read_trace(std::istream* log) {
  std::vector<TraceLine> direct;
  std::vector<TraceLine> dumped;
  std::set<std::string> earlier;  // lines of the dumps before
  std::set<std::string> current;  // of this one
  bool traced = false;
  bool dumping = false;
  for (std::string line; std::getline(*log, line);) {
    TraceLine parsed;
    if (!parse_line(line, &parsed)) continue;
    if (parsed.function == "dump_flight_recorder") {
      if (!dumping) earlier.merge(current);
      dumping = true;
      TraceLine inner;
      const bool seen = earlier.contains(parsed.text) || !parse_line(parsed.text, &inner);
      current.insert(parsed.text);
      if (!seen) dumped.push_back(inner);
    } else {
      dumping = false;
      traced = traced || parsed.function == "on_sync_state_change";
      direct.push_back(parsed);
      dumped.push_back(parsed);
    }
  }
  return traced ? direct : dumped;
}
