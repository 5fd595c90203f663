#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/answer.h"
#include "tools/diagnostic.h"
#include "tools/output.h"
#include "tools/publish.h"

namespace {

constexpr int kProgressStepMs = 200;

// Shows only the time, because the progress of the other EM is not visible here.
int sync_with_progress(const Options& options, cluster_sync_result* result) {
  cluster_sync_connection* connection = nullptr;
  int error = cluster_sync_open(options.socket.c_str(), options.timeout_ms, &connection);
  if (error != 0) return error;
  error = cluster_sync_send_update(connection, nullptr, nullptr, options.timeout_ms);
  bool waiting = error == 0;
  for (int elapsed = 0; waiting; elapsed += kProgressStepMs) {
    show_progress("exchange: " + std::to_string(elapsed / 1000) +
                  " s (one without progress ends after 10 s)");
    error = cluster_sync_receive(connection, kProgressStepMs, nullptr, result);
    waiting = error == EAGAIN && elapsed < options.timeout_ms;
  }
  if (error == EAGAIN) error = cluster_sync_withdraw(connection);
  cluster_sync_close(connection);
  return error;
}

void print_status(const Options& options, uint32_t status) {
  if (options.json)
    printf("{\"status\":%u}\n", status);
  else if (status != 0)
    printf("refused with status %u\n", status);
  else if (!options.quiet)
    printf("done\n");
}

}  // namespace

int request_update(const Options& options, const Words& words) {
  cluster_sync_result result = {};
  const int error = cluster_sync_update(options.socket.c_str(), words[0].c_str(), words[1].c_str(),
                                        options.timeout_ms, &result);
  return report_answer(options, Wish::kPublish, error, result, words[1]);
}

int request_deletion(const Options& options, const Words& words) {
  cluster_sync_result result = {};
  const int error =
      cluster_sync_delete(options.socket.c_str(), words[0].c_str(), options.timeout_ms, &result);
  return report_answer(options, Wish::kDelete, error, result, words[0]);
}

int request_sync(const Options& options, const Words& /*words*/) {
  if (options.allow_deletions) {
    const DiagnosticAnswer answer = ask_diagnostic(options, "allow-deletions");
    if (answer.error != 0) return report_client_error(options, answer.error, "");
  }
  cluster_sync_result result = {};
  const int error = options.progress
                        ? sync_with_progress(options, &result)
                        : cluster_sync_sync(options.socket.c_str(), options.timeout_ms, &result);
  return report_answer(options, Wish::kSync, error, result, "");
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

int send_diagnostic(const Options& options, const Words& words) {
  const DiagnosticAnswer answer = ask_diagnostic(options, words[0]);
  if (answer.error != 0 && answer.error != ECANCELED)
    return report_client_error(options, answer.error, "");
  print_status(options, answer.status);
  return answer.error == 0 ? kDone : kFailed;
}
