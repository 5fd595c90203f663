#ifndef TESTS_UNIT_DAEMON_SUPPORT_H_
#define TESTS_UNIT_DAEMON_SUPPORT_H_

#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "platform/util.h"
#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/frame/sync_context.h"
#include "tests/unit/platform_support.h"
#include "tests/unit/scripted_cpg.h"

struct LogLine {
  int level;
  std::string function;
  std::string text;
};

// Everything the process writes to the platform log, at every level, from construction on.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();  // gives standard output back, and prints there what was no log line
  std::vector<LogLine> lines() const;

 private:
  int stdout_fd_;
  int capture_fd_;
};

// A daemon at its start with the peer in the group: fresh globals, node 1, four empty roots, this
// EM on standby, nothing sent, nothing logged.
class DaemonTest : public testing::Test {
 protected:
  DaemonTest();
  ~DaemonTest() override;

  SyncContext* ctx = &g_context;
  LogCapture log;

  static void set_active(bool active);

  // Texts of the lines logged at `level`, in order; level -1 for all.
  std::vector<std::string> logged(int level) const;
  bool has_logged(const std::string& text) const;

  // Status field of the last fault event, 0 when there is none.
  static uint32_t fault_status();
};

// A regular expression that matches `text` itself.
std::string literally(const std::string& text);

// The statements abort after a log line that ends in `text`. A death test looks at standard error,
// the log goes to standard output.
#define EXPECT_ABORT(text, ...)             \
  EXPECT_EXIT(                              \
      {                                     \
        dup2(STDERR_FILENO, STDOUT_FILENO); \
        debug_log_to_stdout(1);             \
        __VA_ARGS__;                        \
      },                                    \
      testing::KilledBySignal(SIGABRT), literally(std::string(text) + "\n"))

// `root_paths[root_index]` with a relative path behind it.
std::string tree_path(uint32_t root_index, const std::string& relative_path);

// Writes a file in a tree, making the directories above it. Returns its path.
std::string make_file(uint32_t root_index, const std::string& relative_path,
                      const std::string& content, mode_t mode = 0644);

// `size` bytes that differ from chunk to chunk and with `seed`.
std::string pattern(size_t size, unsigned seed = 0);

// Listing lines of the four trees, in the order in which the scan makes them.
std::vector<std::string> scan_lines(SyncContext* ctx, bool requester = true);

// A group message as its bytes.
std::string message_bytes(uint32_t command, uint32_t exchange_id, uint32_t sequence_id,
                          const std::string& payload = "");

// What was sent, as "MSG_LOCK_REQ 1.0" with exchange and sequence id.
std::vector<std::string> sent_messages();

// Hands a message to the delivery callback, as the peer's (node 2) or as this process's own.
void deliver_from_peer(const std::string& message);
void deliver_own(const SentMessage& message);

#endif  // TESTS_UNIT_DAEMON_SUPPORT_H_
