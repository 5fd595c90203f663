#include "tools/requests.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "client/cluster_sync.h"
#include "platform/storage.h"
#include "tools/diagnostic.h"
#include "tools/output.h"

// What the daemon sends is what the library hands out.
static_assert(sizeof(cluster_sync_result) == sizeof(RpcResult));
#define SAME_PLACE(field) \
  static_assert(offsetof(cluster_sync_result, field) == offsetof(RpcResult, field))
SAME_PLACE(success);
SAME_PLACE(local_ok);
SAME_PLACE(remote_ok);
SAME_PLACE(benign);
SAME_PLACE(canceled);
SAME_PLACE(peer_present);
SAME_PLACE(reason);

namespace {

constexpr int kProgressStepMs = 200;

const char* yes_or_no(bool value) {
  return value ? "yes" : "no";
}

void print_status(const Options& options, uint32_t status) {
  if (options.json)
    printf("{\"status\":%u}\n", status);
  else if (status == 0)
    printf("done\n");
  else
    printf("refused with status %u\n", status);
}

void print_result(const Options& options, const cluster_sync_result& result) {
  const bool peer_present = result.peer_present == 'Y';
  if (options.json) {
    printf(
        "{\"status\":0,\"success\":%s,\"local_ok\":%s,\"remote_ok\":%s,\"benign\":%s,"
        "\"canceled\":%s,\"peer_present\":%s,\"reason\":%s}\n",
        json_bool(result.success != 0), json_bool(result.local_ok != 0),
        json_bool(result.remote_ok != 0), json_bool(result.benign != 0),
        json_bool(result.canceled != 0), json_bool(peer_present),
        json_string(result.reason).c_str());
    return;
  }
  printf("success:      %s\nlocal_ok:     %s\nremote_ok:    %s\npeer_present: %s\n",
         yes_or_no(result.success != 0), yes_or_no(result.local_ok != 0),
         yes_or_no(result.remote_ok != 0), yes_or_no(peer_present));
  if (result.reason[0] != '\0') printf("reason:       %s\n", printable(result.reason).c_str());
}

// Shows the answer, or why there is none. `error` is the client library's, `path` what was asked
// for.
int report(const Options& options, int error, const cluster_sync_result& result,
           const std::string& path) {
  if (error != 0 && error != ECANCELED) return report_client_error(options, error, path);
  print_result(options, result);
  return error == 0 ? kDone : kFailed;
}

int64_t monotonic_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// The other EM's share cannot be seen from here; the time can.
int sync_with_progress(const Options& options, cluster_sync_result* result) {
  const int64_t start = monotonic_ms();
  cluster_sync_connection* connection = nullptr;
  int error = cluster_sync_open(options.socket.c_str(), options.timeout_ms, &connection);
  if (error != 0) return error;
  error = cluster_sync_send_update(connection, nullptr, nullptr, options.timeout_ms);
  bool waiting = error == 0;
  for (int64_t elapsed = 0; waiting; elapsed = monotonic_ms() - start) {
    show_progress("exchange: " + std::to_string(elapsed / 1000) +
                  " s (one without progress ends after 10 s)");
    error = cluster_sync_receive(connection, kProgressStepMs, nullptr, result);
    waiting = error == EAGAIN && elapsed < options.timeout_ms;
  }
  if (error == EAGAIN) error = EINPROGRESS;
  cluster_sync_close(connection);
  clear_progress();
  return error;
}

}  // namespace

int request_update(const Options& options, const Words& words) {
  cluster_sync_result result = {};
  const int error = cluster_sync_update(options.socket.c_str(), words[0].c_str(), words[1].c_str(),
                                        options.timeout_ms, &result);
  return report(options, error, result, words[1]);
}

int request_deletion(const Options& options, const Words& words) {
  cluster_sync_result result = {};
  const int error =
      cluster_sync_delete(options.socket.c_str(), words[0].c_str(), options.timeout_ms, &result);
  return report(options, error, result, words[0]);
}

int request_sync(const Options& options, const Words& /*words*/) {
  cluster_sync_result result = {};
  const int error = options.progress
                        ? sync_with_progress(options, &result)
                        : cluster_sync_sync(options.socket.c_str(), options.timeout_ms, &result);
  return report(options, error, result, "");
}

int put_file(const Options& options, const Words& words) {
  const std::string& name = words[0];
  const int fd = name == "-" ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status;
  if (fd < 0 || fstat(fd, &status) != 0)
    return report_error(options, name + ": " + strerror(errno), kFailed);
  if (S_ISDIR(status.st_mode)) return report_error(options, name + " is a directory", kFailed);
  const mode_t mode = S_ISREG(status.st_mode) ? status.st_mode : mode_of_new_file();
  return publish(options, fd, words[1], wanted_mode(options, mode, words[1]));
}

int publish(const Options& options, int fd, const std::string& destination, mode_t mode) {
  cluster_sync_result result = {};
  const int error = cluster_sync_put_fd(options.socket.c_str(), fd, destination.c_str(), mode,
                                        options.timeout_ms, &result);
  return report(options, error, result, destination);
}

mode_t wanted_mode(const Options& options, mode_t mode, const std::string& destination) {
  if (options.mode >= 0) return static_cast<mode_t>(options.mode);
  struct stat status;
  return stat(destination.c_str(), &status) == 0 ? mode & status.st_mode : mode;
}

mode_t mode_of_new_file() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

int send_diagnostic(const Options& options, const Words& words) {
  const DiagnosticAnswer answer = ask_diagnostic(options, words[0]);
  if (answer.error != 0 && answer.error != ECANCELED)
    return report_client_error(options, answer.error, "");
  print_status(options, answer.status);
  return answer.error == 0 ? kDone : kFailed;
}
