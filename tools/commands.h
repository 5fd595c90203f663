#ifndef TOOLS_COMMANDS_H_
#define TOOLS_COMMANDS_H_

#include <string>
#include <vector>

#include "client/cluster_sync.h"

// The commands of cluster_sync_ctl. Each prints its answer to standard output, as one line of JSON
// when asked, and returns the exit status.

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2, kNoAnswer = 3 };

struct Options {
  std::string given;  // the letters of the options on the command line
  bool json = false;
  bool quiet = false;  // no word of success
  std::string socket = CLUSTER_SYNC_SOCKET;
  int timeout_ms = 60 * 1000;
  bool list = false;             // verify: every listing line too
  bool force = false;            // role: without a look at what becomes of the files
  bool progress = false;         // sync: show how long it takes
  int mode = -1;                 // put, edit: the mode of the file; negative when not given
  std::string against;           // verify: a listing of the other EM, "-" for standard input
  int exchange = 0;              // explain: the row of the exchange to draw, 0 for the table
  std::string textfile;          // metrics: the file to replace, empty for standard output
  std::string svg;               // explain: the file for its picture
  bool allow_deletions = false;  // sync: however many
};

// The arguments of a command, as many as it takes and none of them empty.
using Words = std::vector<std::string>;

// Renames the file words[0] onto the replicated file words[1], deletes the replicated file
// words[0], only runs an exchange.
int request_update(const Options& options, const Words& words);
int request_deletion(const Options& options, const Words& words);
int request_sync(const Options& options, const Words& words);

// Publishes the file words[0], "-" for standard input, as the replicated file words[1].
int put_file(const Options& options, const Words& words);

// Lets the user's editor change a copy of the replicated file words[0], and publishes it.
int edit_file(const Options& options, const Words& words);

int send_diagnostic(const Options& options, const Words& words);

int show_status(const Options& options, const Words& words);

// The state for Prometheus, on standard output or in a file.
int show_metrics(const Options& options, const Words& words);

int show_fault(const Options& options, const Words& words);

// Prints the state of the fault and then every change of it. Returns only when that fails.
int watch_fault(const Options& options, const Words& words);

int compare_trees(const Options& options, const Words& words);

int verify_trees(const Options& options, const Words& words);

// Tells of the exchanges that are in the logs `words`, of one EM or of both, "-" or none for
// standard input.
int explain_trace(const Options& options, const Words& words);

int set_role(const Options& options, const Words& words);

#endif  // TOOLS_COMMANDS_H_
