#include "tools/trace_line.h"

#include <ctype.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <istream>
#include <iterator>
#include <utility>

namespace {

// Other numbers at the head of a line are no time.
constexpr double kFirstTime = 1e8;
constexpr double kLastTime = 1e11;

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
  if (number >= kFirstTime && number < kLastTime) return number;
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

bool is_same_line(const TraceLine& a, const TraceLine& b) {
  return a.time == b.time && a.function == b.function && a.text == b.text;
}

// Takes a dump over. It begins with what the recorder still held of the dump before.
void add_dump(std::vector<TraceLine>* dump, std::vector<TraceLine>* recorded) {
  size_t known = std::min(dump->size(), recorded->size());
  while (!std::equal(dump->begin(), dump->begin() + static_cast<ptrdiff_t>(known),
                     recorded->end() - static_cast<ptrdiff_t>(known), is_same_line))
    --known;
  std::move(dump->begin() + static_cast<ptrdiff_t>(known), dump->end(),
            std::back_inserter(*recorded));
  dump->clear();
}

// Whether a line is the first of a dump that follows another without a line between.
bool begins_dump(const TraceLine& line, const std::vector<TraceLine>& dump) {
  return !dump.empty() && (is_same_line(line, dump.front()) || line.time < dump.back().time);
}

}  // namespace

Trace read_trace(std::istream* log) {
  Trace trace;
  std::vector<TraceLine> dump;
  bool traced = false;
  for (std::string line; std::getline(*log, line);) {
    TraceLine parsed;
    if (!parse_line(line, &parsed)) continue;
    TraceLine inner;
    const bool dumped = parsed.function == "dump_flight_recorder";
    const bool recorded = dumped && !traced && parse_line(parsed.text, &inner);
    if (!dumped || begins_dump(inner, dump)) add_dump(&dump, &trace.recorded);
    if (recorded) dump.push_back(inner);
    if (dumped) continue;
    traced = traced || parsed.function == "on_sync_state_change";
    trace.logged.push_back(parsed);
  }
  add_dump(&dump, &trace.recorded);
  if (!traced) trace.logged.clear();
  return trace;
}
