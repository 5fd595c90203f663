#include "tools/publish.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/em.h"
#include "redundancy_health/catalog/roots.h"
#include "tools/answer.h"
#include "tools/interrupt.h"
#include "tools/output.h"

namespace {

constexpr int64_t kProgressStepMs = 200;
constexpr uint64_t kShownFromBytes = uint64_t{8} << 20;  // smaller files are copied too quickly to
                                                         // show progress

// The rule that a name breaks. `below` is the path relative to its tree.
std::string name_rule(const std::string& below) {
  if (below.find(kDigestPrefix) != std::string::npos)
    return std::string("names that begin with ") + kDigestPrefix + " are the daemon's own";
  if (below.starts_with(kTempPrefix) ||
      below.find(std::string("/") + kTempPrefix) != std::string::npos)
    return std::string("names that begin with ") + kTempPrefix +
           " are for files under construction, which are not replicated";
  if (strchr(" \t\n\v\f\r", below[0]) != nullptr)
    return "a name at the top of a tree must not begin with a blank";
  if (below.size() - (below.rfind('/') + 1) + strlen(kDigestPrefix) > NAME_MAX)
    return "a name of a replicated file has at most " +
           std::to_string(NAME_MAX - strlen(kDigestPrefix)) + " bytes";
  return "a replicated file lies at most " + std::to_string(kMaxScanDepth) +
         " directories below its tree";
}

// A sentence that says why `destination` is refused.
std::string refusal(int error, const std::string& destination) {
  char spelling[PATH_MAX];
  if (error == EINVAL && cluster_sync_spell(destination.c_str(), spelling, sizeof spelling) == 0)
    return name_rule(spelling + strlen(root_paths[root_of_path(spelling)]));
  std::error_code failed;
  const std::string target = std::filesystem::read_symlink(destination, failed);
  if (!failed && (error == ELOOP || error == EXDEV))
    return "it is a symbolic link to " + target + "; name the file itself";
  if (error == ELOOP) return "a directory above it in the tree is a symbolic link";
  if (error == ENOENT) return "its directory does not exist";
  return cluster_sync_strerror(error);
}

bool is_for_active_em_only(const std::string& destination) {
  char spelling[PATH_MAX];
  return cluster_sync_spell(destination.c_str(), spelling, sizeof spelling) == 0 &&
         is_shared_root(root_of_path(spelling));
}

// Connects and begins a put. Prints the reason on failure. Returns the exit status.
int begin(const Options& options, const std::string& destination, mode_t mode,
          cluster_sync_connection** connection) {
  int error = cluster_sync_open(options.socket.c_str(), options.timeout_ms, connection);
  if (error != 0) return report_answer(options, Wish::kPublish, error, {}, "");
  error = cluster_sync_put_begin(*connection, destination.c_str(), mode);
  std::string text;
  if (error != 0)
    text = refusal(error, destination);
  else if (!this_em_is_active() && is_for_active_em_only(destination))
    text = "this EM is standby, and this tree is written only on the active EM";
  if (text.empty()) return kDone;
  cluster_sync_close(*connection);
  const auto reason = error != 0 ? cluster_sync_reason(error, nullptr) : CLUSTER_SYNC_NOT_ACTIVE;
  return report_error(options, destination + ": " + text, kFailed,
                      ",\"published\":\"no\",\"why\":" + json_reason(reason));
}

void show_copied(uint64_t copied, int64_t size) {
  if (copied < kShownFromBytes) return;
  std::string text = "copied: " + std::to_string(copied >> 20);
  if (size > 0) text += " of " + std::to_string(size >> 20);
  show_progress(text + " MiB");
}

// Appends the bytes read from `fd`. Returns 0 or an error number: EINTR after a signal.
int copy(cluster_sync_connection* connection, int fd, int64_t* left_ms) {
  struct stat status;
  if (fstat(fd, &status) != 0) return errno;
  const int64_t size = S_ISREG(status.st_mode) ? status.st_size : 0;
  if (size > int64_t{UINT32_MAX}) return EFBIG;
  char buffer[65536];
  for (uint64_t copied = 0;;) {
    int error = wait_readable(fd, left_ms);
    if (error != 0) return error;
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n == 0) return 0;
    if (n < 0 && errno == EAGAIN) continue;
    if (n < 0) return errno;
    error = cluster_sync_put_write(connection, buffer, static_cast<size_t>(n));
    if (error != 0) return error;
    copied += static_cast<uint64_t>(n);
    show_copied(copied, size);
  }
}

// Waits for the answer. Returns 0 or an error number: EINTR after a signal.
int wait_for_answer(const cluster_sync_connection* connection, int64_t left_ms) {
  int error = ETIMEDOUT;
  for (int64_t waited = 0; error == ETIMEDOUT && left_ms > 0;) {
    int64_t step = left_ms < kProgressStepMs ? left_ms : kProgressStepMs;
    left_ms -= step;
    error = wait_readable(cluster_sync_fd(connection), &step);
    waited += kProgressStepMs;
    if (waited > 1000) show_progress("exchange: " + std::to_string(waited / 1000) + " s");
  }
  return error;
}

int report_signal(const Options& options, int error) {
  const bool unknown = error == EINPROGRESS;
  return report_error(options,
                      unknown ? "interrupted; the daemon has the change, and its exchange goes on"
                              : "interrupted; nothing is published",
                      kFailed, unknown ? ",\"published\":\"unknown\"" : ",\"published\":\"no\"");
}

}  // namespace

int check_destination(const Options& options, const std::string& destination) {
  cluster_sync_connection* connection = nullptr;
  const int status = begin(options, destination, 0600, &connection);
  if (status == kDone) cluster_sync_close(connection);
  return status;
}

int publish(const Options& options, int fd, const std::string& destination, mode_t mode) {
  hold_signals();
  cluster_sync_connection* connection = nullptr;
  const int status = begin(options, destination, mode, &connection);
  if (status != kDone) return status;
  cluster_sync_result result = {};
  int64_t left_ms = options.timeout_ms;
  int error = copy(connection, fd, &left_ms);
  if (error == 0) error = cluster_sync_put_send(connection, options.timeout_ms);
  if (error == 0) error = wait_for_answer(connection, left_ms);
  if (error == 0) error = cluster_sync_receive(connection, 0, nullptr, &result);
  if (error == EINTR || error == ETIMEDOUT) error = cluster_sync_withdraw(connection);
  cluster_sync_close(connection);
  if (signal_that_came() != 0 && error != 0 && error != ECANCELED)
    return report_signal(options, error);
  return report_answer(options, Wish::kPublish, error, result, destination);
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
