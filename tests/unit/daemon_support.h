#ifndef TESTS_UNIT_DAEMON_SUPPORT_H_
#define TESTS_UNIT_DAEMON_SUPPORT_H_

#include <signal.h>

#include "platform/util.h"
#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/exit_flag.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/statistics.h"
#include "tests/unit/platform_support.h"
#include "tests/unit/scripted_cpg.h"

// SHA-1 of these contents.
#define SHA_ABC "a9993e364706816aba3e25717850c26c9cd0d89d"
#define SHA_A "86f7e437faa5a7fce15d1ddcb9eaeaea377667b8"
#define SHA_CONTENT "040f06fd774092478d450774f5ba30c5da78acc8"
#define SHA_EMPTY "da39a3ee5e6b4b0d3255bfef95601890afd80709"

// A daemon after its start, with the peer in the group: fresh globals, node 1, four empty roots,
// this EM on standby, nothing sent, the flight recorder paused. Captures the platform log.
class DaemonTest : public testing::Test {
 protected:
  DaemonTest();
  ~DaemonTest() override;  // restores standard output and prints output that was not a log line

  SyncContext* ctx = &g_context;

  static void set_active(bool active);

  // Texts of the lines logged at `level`, in order; level -1 for all.
  Lines logged(int level = -1) const;

  // Makes the peer join (`joined`) or leave the group.
  void change_membership(bool joined);

  // Publishes a request as its caller's thread does. An empty message only asks for an exchange.
  void publish(const std::string& message = std::string(2, '\0'));

  // Does what sync_thread does with a request that has no waiting caller. Returns its answer.
  RpcResult request(const std::string& source, const std::string& destination);

  // Delivers a request of the peer, by default an update, while its exchange is served.
  void receive(const std::string& payload, uint32_t command = MSG_UPDATE_REQ);

  // Status field of the last fault event, 0 if there is none. The event must be well-formed.
  static uint32_t fault_status();

 private:
  int stdout_fd_;
  int capture_fd_;
  std::string message_;
};

// Expects the statements to abort after a log line with `pattern`. A death test checks standard
// error, but the log goes to standard output.
#define EXPECT_ABORT(pattern, ...)          \
  EXPECT_EXIT(                              \
      {                                     \
        dup2(STDERR_FILENO, STDOUT_FILENO); \
        debug_log_to_stdout(1);             \
        __VA_ARGS__;                        \
      },                                    \
      testing::KilledBySignal(SIGABRT), pattern)

// `root_paths[root_index]` followed by a relative path.
std::string tree_path(uint32_t root_index, const std::string& relative_path);

// Writes a file in a tree, with the directories above it. Returns its path.
std::string make_file(uint32_t root_index, const std::string& relative_path,
                      const std::string& content, mode_t mode = 0644);

// `size` bytes that differ from chunk to chunk and with `seed`.
std::string pattern(size_t size, unsigned seed = 0);

// Listing lines of the four trees, in scan order.
Lines scan_lines(SyncContext* ctx, bool requester = true);

std::string little_endian(uint32_t number);

// The bytes of a group message that reports a success, built without the daemon's own record.
std::string message_bytes(uint32_t command, uint32_t exchange_id, uint32_t sequence_id,
                          const std::string& payload = "", uint32_t flags = 0);

// The bytes of the payload of an update message.
enum UpdateFlags { kPlain = 0, kRestricted = 1, kNoData = 2 };
std::string update(uint32_t type, uint32_t root, const std::string& path, uint32_t begin,
                   uint32_t end, uint32_t file_size, const std::string& data = "",
                   int flags = kPlain);

// The payload that pushes a whole file.
std::string push(uint32_t root, const std::string& path, const std::string& data);

// The sent messages as "MSG_LOCK_REQ 1.0", with exchange and sequence id.
Lines sent_messages();

#endif  // TESTS_UNIT_DAEMON_SUPPORT_H_
