#include "tools/journal_format.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <istream>

namespace {

constexpr uint64_t kLargestField = 1 << 20;

struct Record {
  std::string time;  // microseconds since 1970
  std::string message;
  std::string host;
};

std::string* field_of(Record* record, const std::string& name) {
  if (name == "MESSAGE") return &record->message;
  if (name == "__REALTIME_TIMESTAMP") return &record->time;
  if (name == "_HOSTNAME") return &record->host;
  return nullptr;
}

std::string record_line(const Record& record, LogSource* source) {
  if (source->host.empty()) source->host = record.host;
  const uint64_t us = strtoull(record.time.c_str(), nullptr, 10);
  char time[32];
  snprintf(time, sizeof time, "%llu.%06u ", static_cast<unsigned long long>(us / 1000000),
           static_cast<unsigned>(us % 1000000));
  return time + record.message;
}

// A character of a JSON string, starting after its backslash. Characters above U+00FF are not
// needed.
char unescape(const std::string& json, size_t* at) {
  const char c = json[(*at)++];
  switch (c) {
    case 'n':
      return '\n';
    case 't':
      return '\t';
    case 'r':
      return '\r';
    case 'b':
      return '\b';
    case 'f':
      return '\f';
    case 'u':
      *at += 4;
      return static_cast<char>(strtoul(json.substr(*at - 4, 4).c_str(), nullptr, 16));
    default:
      return c;
  }
}

// Reads the string that starts with the quote at `*at`.
std::string take_text(const std::string& json, size_t* at) {
  std::string text;
  ++*at;
  while (*at < json.size() && json[*at] != '"') {
    const char c = json[(*at)++];
    if (c == '\\' && *at + 5 <= json.size())
      text += unescape(json, at);
    else
      text += c;
  }
  ++*at;
  return text;
}

// A value that is not a string: null, a number, or a list of numbers for bytes that are not UTF-8.
std::string take_value(const std::string& json, size_t* at) {
  if (json[*at] == '"') return take_text(json, at);
  std::string bytes;
  const bool list = json[*at] == '[';
  while (*at < json.size() && json[*at] != '}' && (list ? json[*at] != ']' : json[*at] != ',')) {
    char* end = nullptr;
    const unsigned long number = strtoul(json.c_str() + *at, &end, 10);
    const size_t next = static_cast<size_t>(end - json.c_str());
    if (list && next > *at) bytes += static_cast<char>(number);
    *at = next > *at ? next : *at + 1;
  }
  *at += list ? 1 : 0;
  return bytes;
}

Record parse_json(const std::string& json) {
  Record record;
  size_t at = json.find('{') + 1;
  while (at < json.size() && json[at] != '}') {
    if (json[at] != '"') {
      ++at;
      continue;
    }
    const std::string name = take_text(json, &at);
    while (at < json.size() && (json[at] == ':' || json[at] == ' '))
      ++at;
    if (at >= json.size()) break;
    const std::string value = take_value(json, &at);
    std::string* field = field_of(&record, name);
    if (field != nullptr) *field = value;
  }
  return record;
}

// A binary field: its length, little-endian, and its bytes.
std::string take_bytes(std::istream* log) {
  uint64_t size = 0;
  for (int i = 0; i < 8; ++i)
    size |= static_cast<uint64_t>(log->get() & 0xFF) << (8 * i);
  if (!*log || size > kLargestField) return "";
  std::string bytes(static_cast<size_t>(size), '\0');
  log->read(bytes.data(), static_cast<std::streamsize>(size));
  log->get();
  return bytes;
}

Record take_export(std::istream* log, std::string line) {
  Record record;
  do {
    const size_t equals = line.find('=');
    const std::string name = line.substr(0, equals);
    const std::string value =
        equals == std::string::npos ? take_bytes(log) : line.substr(equals + 1);
    std::string* field = field_of(&record, name);
    if (field != nullptr) *field = value;
  } while (std::getline(*log, line) && !line.empty());
  return record;
}

// Stores the word before "CLUS_SYNC[1]:" as the host.
void note_host(const std::string& line, LogSource* source) {
  const size_t end = line.find("]: ");
  if (end == std::string::npos) return;
  const size_t ident = line.rfind(' ', end);
  if (ident == std::string::npos || ident == 0) return;
  const size_t bracket = line.find('[', ident);
  if (bracket >= end - 1 || line.find_first_not_of("0123456789", bracket + 1) != end) return;
  const size_t host = line.rfind(' ', ident - 1);
  if (host != std::string::npos) source->host = line.substr(host + 1, ident - host - 1);
}

}  // namespace

bool next_log_line(std::istream* log, LogSource* source, std::string* line) {
  if (!std::getline(*log, *line)) return false;
  const size_t begin = line->rfind("data: {", 0) == 0 ? 6 : line->rfind("\x1e{", 0) == 0 ? 1 : 0;
  if (line->compare(begin, 2, "{\"") == 0) {
    *line = record_line(parse_json(*line), source);
  } else if (line->rfind("__CURSOR=", 0) == 0) {
    *line = record_line(take_export(log, *line), source);
  } else if (*line == "{") {
    source->unread = "json-pretty";
  } else if (line->find(" [s=") != std::string::npos && line->find(";i=") != std::string::npos) {
    source->unread = "verbose";
  } else if (source->host.empty()) {
    note_host(*line, source);
  }
  return true;
}
