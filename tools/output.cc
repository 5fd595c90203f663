#include "tools/output.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <iterator>
#include <string_view>

#include "platform/escape.h"

namespace {

// Whether a character is a control character. For U+0080 to U+009F, the last byte is the number.
bool is_control(const std::string& character) {
  const auto last = static_cast<unsigned char>(character.back());
  if (character.size() == 1) return last < 0x20 || last == 0x7F;
  return character.size() == 2 && character[0] == '\xC2' && last < 0xA0;
}

constexpr int64_t kProgressIntervalMs = 200;

bool g_progress_shown = false;

bool progress_is_due() {
  static int64_t last = 0;
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const int64_t ms = int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
  if (g_progress_shown && ms - last < kProgressIntervalMs) return false;
  last = ms;
  return true;
}

}  // namespace

std::string json_string(const std::string& text) {
  std::string json = "\"";
  for (size_t i = 0; i < text.size();) {
    const size_t length = utf8_length(std::string_view(text).substr(i));
    if (length == 0) {
      json += "\\ufffd";
    } else if (is_control(text.substr(i, length))) {
      char code[7];
      snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned char>(text[i + length - 1]));
      json += code;
    } else {
      if (text[i] == '"' || text[i] == '\\') json += '\\';
      json.append(text, i, length);
    }
    i += length == 0 ? 1 : length;
  }
  return json + "\"";
}

std::string printable(const std::string& text) {
  return escape_control_bytes(text);
}

const char* json_bool(bool value) {
  return value ? "true" : "false";
}

std::string json_reason(cluster_sync_reason_code reason) {
  static constexpr const char* kNames[] = {nullptr,          "not_active",        "busy",
                                           "not_replicated", "other_file_system", "no_such_file",
                                           "error_here",     "error_there",       "timed_out",
                                           "protocol",       "no_daemon",         "other"};
  static_assert(std::size(kNames) == CLUSTER_SYNC_OTHER + 1);
  if (reason == CLUSTER_SYNC_NO_REASON) return "null";
  return json_string(reason < std::size(kNames) ? kNames[reason] : "other");
}

int report_error(const Options& options, const std::string& text, ExitStatus status,
                 const std::string& more) {
  clear_progress();
  if (options.json) printf("{\"error\":%s%s}\n", json_string(text).c_str(), more.c_str());
  fprintf(stderr, "cluster_sync_ctl: %s\n", printable(text).c_str());
  return status;
}

std::string client_error_text(const Options& options, int error) {
  char limit[64];
  snprintf(limit, sizeof limit, "no answer within %g s", options.timeout_ms / 1000.0);
  if (error == EACCES && geteuid() != 0) return "needs root";
  if (error == ETIMEDOUT || error == EAGAIN) return limit + std::string("; nothing was changed");
  if (error == EINPROGRESS)
    return limit + std::string("; the daemon has the request, and its exchange goes on");
  return cluster_sync_strerror(error);
}

int report_client_error(const Options& options, int error, const std::string& path,
                        const std::string& more) {
  const std::string text = client_error_text(options, error);
  const std::string members = more + ",\"why\":" + json_reason(cluster_sync_reason(error, nullptr));
  switch (error) {
    case ECONNREFUSED:
    case ECONNRESET:
    case EINPROGRESS:
    case ETIMEDOUT:
    case EAGAIN:
    case EPROTO:
    case EACCES:  // the command socket is for root only
      return report_error(options, text, kNoAnswer, members);
    default:
      return report_error(options, path.empty() ? text : path + ": " + text, kFailed, members);
  }
}

int usage_error(const std::string& text) {
  fprintf(stderr, "cluster_sync_ctl: %s\nTry 'cluster_sync_ctl --help'.\n",
          printable(text).c_str());
  return kUsage;
}

void show_progress(const std::string& text) {
  static const bool terminal = isatty(STDERR_FILENO) != 0;
  if (!terminal || !progress_is_due()) return;
  fprintf(stderr, "\r\x1b[K%s", printable(text).c_str());
  g_progress_shown = true;
}

void clear_progress() {
  if (g_progress_shown) fputs("\r\x1b[K", stderr);
  g_progress_shown = false;
}
