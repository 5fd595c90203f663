#ifndef TOOLS_COMMANDS_H_
#define TOOLS_COMMANDS_H_

#include <string>
#include <vector>

#include "client/cluster_sync.h"

// The commands of cluster_sync_ctl. Each prints its answer to standard output, with --json as one
// line of JSON, and returns the exit status.

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2, kNoAnswer = 3 };

struct Options {
  std::string given;  // the letters of the options on the command line
  bool json = false;
  bool quiet = false;  // print nothing on success
  std::string socket = CLUSTER_SYNC_SOCKET;
  int timeout_ms = 60 * 1000;
  bool list = false;             // verify: print every listing line
  bool force = false;            // role: skip the checks
  bool progress = false;         // sync: show the elapsed time
  int mode = -1;                 // put, edit: the mode of the file; negative if not given
  std::string against;           // verify: the listing of the other EM, "-" for standard input
  int exchange = 0;              // explain: row of the exchange to draw, 0 for the table
  std::string textfile;          // metrics: file to replace, empty for standard output
  std::string svg;               // explain: file for the picture
  bool allow_deletions = false;  // sync: allow any number of deletions
};

// The arguments of a command. Their number has been checked, and none is empty.
using Words = std::vector<std::string>;

// Rename the file words[0] onto the replicated file words[1]; delete the replicated file words[0];
// only run an exchange.
int request_update(const Options& options, const Words& words);
int request_deletion(const Options& options, const Words& words);
int request_sync(const Options& options, const Words& words);

// Publishes the file words[0], "-" for standard input, as the replicated file words[1].
int put_file(const Options& options, const Words& words);

// Opens a copy of the replicated file words[0] in the user's editor and publishes it.
int edit_file(const Options& options, const Words& words);

int send_diagnostic(const Options& options, const Words& words);

int show_status(const Options& options, const Words& words);

// Prints the state for Prometheus, or writes it to a file.
int show_metrics(const Options& options, const Words& words);

int show_fault(const Options& options, const Words& words);

// Prints the state of the fault, then every change of it. Returns only if that fails.
int watch_fault(const Options& options, const Words& words);

int compare_trees(const Options& options, const Words& words);

// Files that exchanges have deleted or replaced here and that were kept. Lists them; publishes the
// file words[1] ("restore") again, at its old path or as words[2]; or compares it ("diff") with the
// current file.
int show_kept(const Options& options, const Words& words);

int verify_trees(const Options& options, const Words& words);

// Shows the exchanges in the logs `words`, of one EM or both; "-" or none for standard input.
int explain_trace(const Options& options, const Words& words);

int set_role(const Options& options, const Words& words);

#endif  // TOOLS_COMMANDS_H_
