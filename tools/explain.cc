// What the trace of the daemons tells: a row for each exchange, or one of them drawn.

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <iostream>

#include "tools/commands.h"
#include "tools/exchange_trace.h"
#include "tools/ladder.h"
#include "tools/output.h"

namespace {

constexpr char kTooLow[] =
    ". The log shows every message from level 7 on: BREL_LOG_LEVEL=7 in "
    "/etc/default/cluster_sync_daemon and a restart, or without one 'cluster_sync_ctl diag "
    "log-size=10000000' and then the file /tmp/cluster_sync_daemon.log";

// Reads one log, "-" for standard input. `*traced` becomes false when it holds dumps only.
bool read_log(const std::string& path, int log, std::vector<TracedExchange>* exchanges,
              bool* traced) {
  std::ifstream file;
  errno = 0;
  if (path != "-") file.open(path);
  std::istream* stream = path == "-" ? &std::cin : &file;
  if (!stream->fail()) {
    const Trace trace = read_trace(stream);
    *exchanges = find_exchanges(trace.recorded, log);
    const std::vector<TracedExchange> logged = find_exchanges(trace.logged, log);
    exchanges->insert(exchanges->end(), logged.begin(), logged.end());
    *traced = *traced && !trace.logged.empty();
  }
  return !stream->bad() && (path == "-" || file.is_open()) && errno != EISDIR;
}

std::string em_name(int em, bool both_logs) {
  if (both_logs) return em == 0 ? "first EM" : "second EM";
  return em == 0 ? "this EM" : "other EM";
}

bool has_step(const TracedExchange& exchange, const char* message) {
  return std::any_of(exchange.steps.begin(), exchange.steps.end(),
                     [&](const TraceStep& step) { return step.message == message; });
}

std::string outcome(const TracedExchange& exchange) {
  if (!exchange.failure.empty()) return "FAILED: " + exchange.failure;
  if (exchange.gave_way) return "gave way to the other EM";
  if (has_step(exchange, "ON_CPG_LEFT")) return "broken off: an EM left the group";
  if (!exchange.ended) return "its end is not in the log";
  const bool alone = exchange.complete && !has_step(exchange, "MSG_LISTING_REQ");
  return alone ? "success here, the other EM is away" : "success";
}

std::string cause(const TracedExchange& exchange) {
  if (!exchange.why.empty()) return exchange.why;
  return exchange.complete ? "asked there" : "its beginning is not in the log";
}

std::string moved_text(const TracedExchange& exchange) {
  static const char* const kNames[kMoveKinds] = {"pushed", "pulled", "deleted"};
  std::string text;
  for (size_t kind = 0; kind < kMoveKinds; ++kind) {
    const Moved& moved = exchange.moved[kind];
    if (moved.paths.empty()) continue;
    if (!text.empty()) text += ", ";
    text += std::to_string(moved.paths.size()) + " " + kNames[kind];
    if (kind != kDeleted) text += " (" + std::to_string(moved.bytes) + " B)";
  }
  return text.empty() ? "nothing" : text;
}

void print_table(const std::vector<TracedExchange>& exchanges, bool both_logs) {
  printf("%4s  %-19s  %-9s  %7s  %-44s  %s\n", "#", "time", "asked by", "took", "moved",
         "why, and how it ended");
  for (size_t i = 0; i < exchanges.size(); ++i) {
    const TracedExchange& exchange = exchanges[i];
    printf("%4zu  %-19s  %-9s  %5.*f s  %-44s  %s: %s\n", i + 1,
           clock_text(exchange.begin, true).c_str(), em_name(exchange.requester, both_logs).c_str(),
           exchange.begin != static_cast<double>(static_cast<int64_t>(exchange.begin)) ? 3 : 0,
           exchange.end - exchange.begin, moved_text(exchange).c_str(),
           printable(cause(exchange)).c_str(), printable(outcome(exchange)).c_str());
  }
}

void print_json(const std::vector<TracedExchange>& exchanges) {
  std::string json;
  for (const TracedExchange& exchange : exchanges) {
    char numbers[96];
    snprintf(numbers, sizeof numbers, "{\"time\":%.6f,\"seconds\":%.6f,\"em\":%d,", exchange.begin,
             exchange.end - exchange.begin, exchange.requester + 1);
    json += (json.empty() ? "[" : ",") + std::string(numbers) +
            "\"why\":" + json_string(cause(exchange)) +
            ",\"moved\":" + json_string(moved_text(exchange)) +
            ",\"success\":" + json_bool(exchange.ended && exchange.failure.empty()) +
            ",\"outcome\":" + json_string(outcome(exchange)) + "}";
  }
  printf("%s]\n", json.c_str());
}

// Prints one exchange, or writes its picture.
int draw(const Options& options, const TracedExchange& exchange, bool both_logs) {
  const std::string left = em_name(exchange.requester, both_logs);
  const std::string right = em_name(1 - exchange.requester, both_logs);
  const std::string title =
      clock_text(exchange.begin, true) + ", " + cause(exchange) + ": " + outcome(exchange);
  const std::vector<Rung> rungs = make_rungs(exchange);
  if (options.svg.empty()) {
    printf("%s\n%s", printable(title).c_str(), draw_text(rungs, left, right).c_str());
    return kDone;
  }
  std::ofstream file(options.svg);
  file << draw_svg(rungs, title, left, right) << std::flush;
  if (!file) return report_error(options, options.svg + ": " + strerror(errno), kFailed);
  return kDone;
}

}  // namespace

int explain_trace(const Options& options, const Words& words) {
  if (!options.svg.empty() && options.exchange == 0)
    return usage_error("--svg draws the exchange that --exchange names");
  std::vector<TracedExchange> logs[2];
  const bool both_logs = words.size() == 2;
  bool traced = true;
  for (size_t i = 0; i < 1 + size_t{both_logs}; ++i) {
    const std::string path = words.empty() ? "-" : words[i];
    if (!read_log(path, static_cast<int>(i), &logs[i], &traced))
      return report_error(options, path + ": " + strerror(errno));
  }
  const std::vector<TracedExchange> exchanges = join_exchanges(logs[0], logs[1]);
  if (exchanges.empty())
    return report_error(options, std::string("no exchange") + kTooLow, kFailed);
  if (!traced)
    fprintf(stderr, "cluster_sync_ctl: what the flight recorder dumped, nothing else%s\n", kTooLow);
  if (options.exchange != 0) {
    const size_t index = static_cast<size_t>(options.exchange) - 1;
    if (index >= exchanges.size()) return report_error(options, "no such exchange", kFailed);
    return draw(options, exchanges[index], both_logs);
  }
  options.json ? print_json(exchanges) : print_table(exchanges, both_logs);
  return kDone;
}
