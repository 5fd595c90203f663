#include "tools/trace_line.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <deque>
#include <istream>
#include <vector>

namespace {

constexpr double kLastTime = 1e11;      // a larger number at the start of a line is not a time
constexpr size_t kLongestDump = 20000;  // lines of a dump that are compared with earlier ones

constexpr time_t kDay = time_t{24} * 60 * 60;

bool is_name(char c) {
  return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// Finds "function:line: " before a text. Returns the index of the text, or npos. The part before
// `*name` was added by the logger.
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

// Parses "+0100", "+01:00" or "Z" after a time. Seconds east of Greenwich; false if there is none.
bool parse_offset(const char* text, long* offset) {
  if (*text == 'Z' || strncmp(text, " UTC", 4) == 0) {
    *offset = 0;
    return true;
  }
  int hours = 0;
  int minutes = 0;
  if (*text != '+' && *text != '-') return false;
  const bool colon = strlen(text) > 3 && text[3] == ':';
  if (sscanf(text + 1, colon ? "%2d:%2d" : "%2d%2d", &hours, &minutes) != 2) return false;
  *offset = (hours * 60L + minutes) * 60 * (*text == '-' ? -1 : 1);
  return true;
}

// Skips the name of a day before a date that has a year.
const char* skip_weekday(const char* text) {
  const bool weekday = strlen(text) > 5 && text[3] == ' ' && is_digit(text[4]);
  return weekday ? text + 4 : text;
}

// Parses a date with a year: ISO, or with a blank between day and time. Null if it is invalid.
const char* parse_date(const char* text, tm* date) {
  const char* rest = strptime(text, "%Y-%m-%dT%H:%M:%S", date);
  return rest != nullptr ? rest : strptime(skip_weekday(text), "%Y-%m-%d %H:%M:%S", date);
}

double local_time(tm* date, bool has_year, time_t now) {
  date->tm_isdst = -1;
  time_t seconds = mktime(date);
  if (!has_year && seconds > now + kDay) {
    --date->tm_year;
    date->tm_isdst = -1;
    seconds = mktime(date);
  }
  return static_cast<double>(seconds);
}

// The time at the start of a line: seconds since 1970 (private log, short-unix), seconds since boot
// in brackets, a date with a year, or the date of syslog, which has no year and means the last such
// day.
double parse_time(const std::string& line) {
  if (line[0] == '[') return std::clamp(strtod(line.c_str() + 1, nullptr), 0.0, kFirstDate - 1);
  char* end = nullptr;
  const double number = strtod(line.c_str(), &end);
  if (number >= kFirstDate && number < kLastTime) return number;
  const time_t now = time(nullptr);
  tm date = {};
  const char* rest = parse_date(line.c_str(), &date);
  const bool has_year = rest != nullptr;
  if (!has_year) {
    localtime_r(&now, &date);
    rest = strptime(line.c_str(), "%b %d %H:%M:%S", &date);
  }
  if (rest == nullptr) return 0;
  double fraction = 0;
  if (*rest == '.' || *rest == ',') {
    const std::string digits = "0." + std::string(rest + 1, strspn(rest + 1, "0123456789"));
    fraction = strtod(digits.c_str(), nullptr);
    rest += digits.size() - 1;
  }
  long offset = 0;
  if (!parse_offset(rest, &offset)) return local_time(&date, has_year, now) + fraction;
  return static_cast<double>(timegm(&date) - offset) + fraction;
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

bool is_same_line(const TraceLine& a, const TraceLine& b) {
  return a.time == b.time && a.function == b.function && a.text == b.text;
}

// The dumps of a log.
struct Dumps {
  std::vector<TraceLine> open;   // the dump that is being read
  std::deque<TraceLine> passed;  // the last lines passed on, as many as a dump can repeat
};

// Passes a dump on. Its first lines may repeat those of the previous dump.
void take_dump(Dumps* dumps, const TakeTraceLine& take) {
  const std::vector<TraceLine>& dump = dumps->open;
  std::deque<TraceLine>& passed = dumps->passed;
  size_t known = std::min(dump.size(), passed.size());
  while (!std::equal(dump.begin(), dump.begin() + static_cast<ptrdiff_t>(known),
                     passed.end() - static_cast<ptrdiff_t>(known), is_same_line))
    --known;
  for (size_t i = known; i < dump.size(); ++i) {
    take(dump[i], true);
    passed.push_back(dump[i]);
    if (passed.size() > kLongestDump) passed.pop_front();
  }
  dumps->open.clear();
}

// Whether a line starts a new dump that follows another one without a line in between.
bool begins_dump(const TraceLine& line, const std::vector<TraceLine>& dump) {
  return !dump.empty() && (is_same_line(line, dump.front()) || line.time < dump.back().time ||
                           dump.size() >= kLongestDump);
}

}  // namespace

bool read_trace(std::istream* log, LogSource* source, const TakeTraceLine& take) {
  Dumps dumps;
  bool traced = false;
  for (std::string line; next_log_line(log, source, &line);) {
    TraceLine parsed;
    if (!parse_line(line, &parsed)) continue;
    TraceLine inner;
    const bool dumped = parsed.function == "dump_flight_recorder";
    const bool recorded = dumped && !traced && parse_line(parsed.text, &inner);
    if (!dumped || begins_dump(inner, dumps.open)) take_dump(&dumps, take);
    if (recorded) dumps.open.push_back(inner);
    if (dumped) continue;
    traced = traced || parsed.function == "on_sync_state_change";
    take(parsed, false);
  }
  take_dump(&dumps, take);
  return traced;
}
