#ifndef TOOLS_ASK_DAEMON_H_
#define TOOLS_ASK_DAEMON_H_

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "tools/commands.h"

constexpr uint32_t kRpcUpdate = 0;
constexpr uint32_t kDiagnostic = 1;

// A response packet, or why there is none.
struct Answer {
  std::string error;  // empty when there is an answer
  uint32_t status = 0;
  std::vector<uint8_t> payload;
  pid_t daemon_pid = 0;  // the process that listens on the socket
};

// Sends one request to the daemon's command socket and waits for the answer, for the time that the
// options give at most.
Answer ask_daemon(const Options& options, uint32_t type, const std::string& message);

#endif  // TOOLS_ASK_DAEMON_H_
