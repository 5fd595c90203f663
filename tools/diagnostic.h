#ifndef TOOLS_DIAGNOSTIC_H_
#define TOOLS_DIAGNOSTIC_H_

#include <stdint.h>
#include <sys/types.h>

#include <string>

#include "tools/commands.h"

// The result of a diagnostic command.
struct DiagnosticAnswer {
  int error = 0;         // of the client library
  uint32_t status = 0;   // the number with which the daemon refused it
  pid_t daemon_pid = 0;  // the process that listens on the socket, once it has answered
};

DiagnosticAnswer ask_diagnostic(const Options& options, const std::string& command);

#endif  // TOOLS_DIAGNOSTIC_H_
