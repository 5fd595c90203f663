#ifndef TOOLS_COMMANDS_H_
#define TOOLS_COMMANDS_H_

#include <string>

// The commands of cluster_sync_ctl. Each prints its answer to standard output, as one line of JSON
// when asked, and returns the exit status.

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2, kNoAnswer = 3 };

struct Options {
  bool json = false;
  int socket_number = 2006;
  int timeout_seconds = 60;
  bool list = false;    // verify: every listing line too
  std::string against;  // verify: a listing of the other EM, "-" for standard input
};

// Renames `source` onto `destination`; without a source deletes the destination, without both only
// runs an exchange. Paths are absolute.
int request_update(const Options& options, const std::string& source,
                   const std::string& destination);

int send_diagnostic(const Options& options, const std::string& command);

int show_status(const Options& options);

int show_fault(const Options& options);

// Prints the state of the fault and then every change of it. Returns only when that fails.
int watch_fault(const Options& options);

int verify_trees(const Options& options);

int set_role(const Options& options, bool active);

#endif  // TOOLS_COMMANDS_H_
