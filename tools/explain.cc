// Explains the daemon's logs: a row for each exchange, or a drawing of one.

#include <errno.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iostream>
#include <iterator>
#include <utility>

#include "tools/commands.h"
#include "tools/exchange_trace.h"
#include "tools/ladder.h"
#include "tools/output.h"

namespace {

constexpr char kTooLow[] =
    ". The log shows every message from level 7 on: BREL_LOG_LEVEL=7 in "
    "/etc/default/cluster_sync_daemon and a restart, or without one 'cluster_sync_ctl diag "
    "log-size=10000000' and then the file /tmp/cluster_sync_daemon.log";

// The contents of the given logs.
struct Logs {
  std::vector<TracedExchange> exchanges[2];
  LogSource sources[2];
  bool both = false;
  bool traced = true;  // false: one log has only dumps
};

// Reads one log, "-" for standard input.
bool read_log(const std::string& path, int log, Logs* logs) {
  std::ifstream file;
  errno = 0;
  if (path != "-") file.open(path);
  std::istream* stream = path == "-" ? &std::cin : &file;
  if (!stream->fail()) {
    TraceReader recorded = {.log = log};
    TraceReader logged = {.log = log};
    const bool traced =
        read_trace(stream, &logs->sources[log], [&](const TraceLine& line, bool is_recorded) {
          take_trace_line(is_recorded ? &recorded : &logged, line);
        });
    std::vector<TracedExchange>* exchanges = &logs->exchanges[log];
    *exchanges = std::move(recorded.found);
    if (traced) std::move(logged.found.begin(), logged.found.end(), std::back_inserter(*exchanges));
    logs->traced = logs->traced && traced;
  }
  return !stream->bad() && (path == "-" || file.is_open()) && errno != EISDIR;
}

// The names of the EMs: their host names, if both are known and differ.
std::array<std::string, 2> em_names(const Logs& logs) {
  const std::string& here = logs.sources[0].host;
  const std::string& there = logs.sources[1].host;
  if (!logs.both) return {here.empty() ? "this EM" : here, "other EM"};
  if (!here.empty() && !there.empty() && here != there) return {here, there};
  return {"first EM", "second EM"};
}

bool has_step(const TracedExchange& exchange, const char* message) {
  return std::any_of(exchange.steps.begin(), exchange.steps.end(),
                     [&](const TraceStep& step) { return step.message == message; });
}

std::string outcome(const TracedExchange& exchange) {
  if (!exchange.failure.empty()) return "FAILED: " + exchange.failure;
  if (exchange.gave_way) return "gave way to the other EM";
  if (has_step(exchange, "ON_CPG_LEFT")) return "aborted: an EM left the group";
  if (!exchange.ended) return "its end is not in the log";
  const bool alone = exchange.complete && !has_step(exchange, "MSG_LISTING_REQ");
  return alone ? "success here, the other EM is away" : "success";
}

std::string cause(const TracedExchange& exchange) {
  if (!exchange.why.empty()) return exchange.why;
  return exchange.complete ? "asked there" : "its beginning is not in the log";
}

const char* const kMoveNames[kMoveKinds] = {"pushed", "pulled", "deleted"};

size_t file_count(const Moved& moved) {
  std::vector<size_t> paths = moved.paths;
  std::sort(paths.begin(), paths.end());
  return static_cast<size_t>(std::unique(paths.begin(), paths.end()) - paths.begin());
}

std::string moved_text(const TracedExchange& exchange) {
  std::string text;
  for (size_t kind = 0; kind < kMoveKinds; ++kind) {
    const Moved& moved = exchange.moved[kind];
    if (moved.paths.empty()) continue;
    if (!text.empty()) text += ", ";
    text += std::to_string(file_count(moved)) + " " + kMoveNames[kind];
    if (kind != kDeleted) text += " (" + std::to_string(moved.bytes) + " B)";
  }
  return text.empty() ? "nothing" : text;
}

using Names = std::array<std::string, 2>;

const std::string& requester_name(const TracedExchange& exchange, const Names& names) {
  return names[static_cast<size_t>(exchange.requester)];
}

void print_table(const std::vector<TracedExchange>& exchanges, const Names& names) {
  const int width = static_cast<int>(std::max({size_t{9}, names[0].size(), names[1].size()}));
  printf("%4s  %-19s  %-*s  %7s  %-44s  %s\n", "#", "time", width, "asked by", "took", "moved",
         "why, and how it ended");
  for (size_t i = 0; i < exchanges.size(); ++i) {
    const TracedExchange& exchange = exchanges[i];
    printf("%4zu  %-19s  %-*s  %5.*f s  %-44s  %s: %s\n", i + 1,
           clock_text(exchange.begin, true).c_str(), width,
           printable(requester_name(exchange, names)).c_str(),
           exchange.begin != static_cast<double>(static_cast<int64_t>(exchange.begin)) ? 3 : 0,
           exchange.end - exchange.begin, moved_text(exchange).c_str(),
           printable(cause(exchange)).c_str(), printable(outcome(exchange)).c_str());
  }
}

std::string number_text(double number) {
  char text[40];
  snprintf(text, sizeof text, "%.6f", number);
  return text;
}

std::string exchange_json(const TracedExchange& exchange, const Names& names) {
  std::string json = "{\"time\":" + number_text(exchange.begin) +
                     ",\"seconds\":" + number_text(exchange.end - exchange.begin) +
                     ",\"em\":" + std::to_string(exchange.requester + 1) +
                     ",\"asked_by\":" + json_string(requester_name(exchange, names)) +
                     ",\"why\":" + json_string(cause(exchange)) +
                     ",\"moved\":" + json_string(moved_text(exchange));
  for (size_t kind = 0; kind < kMoveKinds; ++kind) {
    const Moved& moved = exchange.moved[kind];
    json += std::string(",\"") + kMoveNames[kind] +
            "\":{\"files\":" + std::to_string(file_count(moved)) +
            ",\"bytes\":" + std::to_string(moved.bytes) + "}";
  }
  return json + ",\"success\":" + json_bool(exchange.ended && exchange.failure.empty()) +
         ",\"outcome\":" + json_string(outcome(exchange));
}

void print_json(const std::vector<TracedExchange>& exchanges, const Names& names) {
  const char* separator = "[";
  for (const TracedExchange& exchange : exchanges) {
    printf("%s%s}", separator, exchange_json(exchange, names).c_str());
    separator = ",";
  }
  printf("]\n");
}

std::string step_json(const TraceStep& step, const TracedExchange& exchange, const Names& names) {
  const int sender = step.by_requester ? exchange.requester : 1 - exchange.requester;
  std::string failures;
  for (const std::string& failure : step.failures)
    failures += (failures.empty() ? "" : ",") + json_string(failure);
  return "{\"time\":" + number_text(step.time) +
         ",\"from\":" + json_string(names[static_cast<size_t>(sender)]) +
         ",\"message\":" + json_string(std::string(step.message)) +
         ",\"sequence\":" + std::to_string(step.sequence_id) +
         ",\"bytes\":" + (step.bytes < 0 ? "null" : std::to_string(step.bytes)) +
         ",\"what\":" + json_string(step.what) + ",\"delivered\":" + json_bool(step.delivered) +
         ",\"requester_state\":" + json_string(std::string(step.requester_state)) +
         ",\"responder_state\":" + json_string(std::string(step.responder_state)) +
         ",\"left_out_before\":" + std::to_string(step.left_out) + ",\"failures\":[" + failures +
         "]}";
}

void print_steps_json(const TracedExchange& exchange, const Names& names) {
  printf("%s,\"steps\":", exchange_json(exchange, names).c_str());
  const char* separator = "[";
  for (const TraceStep& step : exchange.steps) {
    printf("%s%s", separator, step_json(step, exchange, names).c_str());
    separator = ",";
  }
  printf("%s]}\n", exchange.steps.empty() ? "[" : "");
}

// Prints one exchange, or writes its picture.
int draw(const Options& options, const TracedExchange& exchange, const Names& names) {
  const std::string left = requester_name(exchange, names);
  const std::string& right = names[static_cast<size_t>(1 - exchange.requester)];
  const std::string title =
      clock_text(exchange.begin, true) + ", " + cause(exchange) + ": " + outcome(exchange);
  const std::vector<Rung> rungs = make_rungs(exchange);
  if (options.svg.empty() && options.json) {
    print_steps_json(exchange, names);
    return kDone;
  }
  if (options.svg.empty()) {
    printf("%s\n%s", printable(title).c_str(),
           draw_text(rungs, printable(left), printable(right)).c_str());
    return kDone;
  }
  std::ofstream file(options.svg);
  file << draw_svg(rungs, title, left, right) << std::flush;
  if (!file) return report_error(options, options.svg + ": " + strerror(errno), kFailed);
  return kDone;
}

// Prints limits of the answer on standard error.
void tell_limits(const Logs& logs, double clock_ahead, const Names& names) {
  if (!logs.traced)
    fprintf(stderr, "cluster_sync_ctl: found only dumps of the flight recorder%s\n", kTooLow);
  const long seconds = lround(clock_ahead);
  if (seconds != 0)
    fprintf(stderr,
            "cluster_sync_ctl: the clock of %s is %ld s %s that of %s, whose times these are\n",
            printable(names[1]).c_str(), labs(seconds), seconds > 0 ? "ahead of" : "behind",
            printable(names[0]).c_str());
}

// The name of the format that a log is in, if that is none of those that are read.
std::string unread_format(const Logs& logs) {
  return logs.sources[0].unread.empty() ? logs.sources[1].unread : logs.sources[0].unread;
}

}  // namespace

int explain_trace(const Options& options, const Words& words) {
  if (!options.svg.empty() && options.exchange == 0)
    return usage_error("--svg draws the exchange that --exchange names");
  setenv("TZ", ":/etc/localtime", 0);  // unset, it would be looked up anew for every line
  Logs logs;
  logs.both = words.size() == 2;
  for (size_t i = 0; i < 1 + size_t{logs.both}; ++i) {
    const std::string path = words.empty() ? "-" : words[i];
    if (!read_log(path, static_cast<int>(i), &logs))
      return report_error(options, path + ": " + strerror(errno));
  }
  if (const std::string format = unread_format(logs); !format.empty())
    return report_error(options,
                        "the format " + format +
                            " is not read; take journalctl without -o, or -o json, export or "
                            "short-iso-precise",
                        kFailed);
  const Names names = em_names(logs);
  const JoinedExchanges joined =
      join_exchanges(std::move(logs.exchanges[0]), std::move(logs.exchanges[1]));
  if (joined.all.empty())
    return report_error(options, std::string("no exchange") + kTooLow, kFailed);
  tell_limits(logs, joined.clock_ahead, names);
  if (options.exchange != 0) {
    const size_t index = static_cast<size_t>(options.exchange) - 1;
    if (index >= joined.all.size()) return report_error(options, "no such exchange", kFailed);
    return draw(options, joined.all[index], names);
  }
  options.json ? print_json(joined.all, names) : print_table(joined.all, names);
  return kDone;
}
