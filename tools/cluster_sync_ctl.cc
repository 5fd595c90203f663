// Command-line client of cluster_sync_daemon: asks for updates and diagnostics on its command
// socket, shows the state of replication and compares the trees of the two EMs.

#include <errno.h>
#include <getopt.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/cmdsockserver.h"
#include "tools/commands.h"
#include "tools/output.h"

namespace {

constexpr long kMaxTimeoutSeconds = 24L * 60 * 60;

constexpr char kHelp[] =
    R"(Usage: cluster_sync_ctl [OPTION]... COMMAND

Is replication working?
  status                is the daemon there, this EM's number and role, the last
                        state of the replication fault, who is in the group
  fault                 only the last state of the fault; works without the daemon
  watch                 the state of the fault and then one line per change,
                        until interrupted

Do both EMs hold the same files?
  verify                read the four trees; one line with a digest for each, the
                        same on both EMs when the trees are identical
  verify --list         one line per chunk, to be kept or sent to the other EM
  verify --against FILE compare with the other EM's list ("-": standard input)
                        and name the files that differ, for example
                        ssh OTHER cluster_sync_ctl verify --list |
                          cluster_sync_ctl verify --against -

Change files, on this EM and the other:
  update SRC DEST       rename SRC onto the replicated file DEST
  delete DEST           delete the replicated file DEST
  sync                  only run an exchange with the other EM

Operate:
  role active|standby   make this EM the active or the standby one, in the order
                        standby there, active here, then sync
  diag COMMAND[=ARG]    send a diagnostic command to the daemon; the manual page
                        lists them

Relative paths are taken from the current directory.

Options:
  --json                print the answer as one line of JSON
  --socket N            number of the daemon's command socket (default 2006)
  --timeout SECONDS     longest wait for the whole answer (default 60)
  --help                show this text

Exit status:
  0  success; for fault: healthy, or nothing recorded yet
  1  the daemon reports a failure; for status and fault: replication is failing
     or the other EM is away; for verify: the trees differ
  2  wrong usage
  3  no daemon answers, or not in time, or what came back cannot be understood;
     for verify: something could not be read
)";

int usage_error(const std::string& text) {
  fprintf(stderr, "cluster_sync_ctl: %s\nTry 'cluster_sync_ctl --help'.\n",
          printable(text).c_str());
  return kUsage;
}

// Reads a whole decimal number between the bounds into `*number`.
bool parse_number(const char* text, long least, long most, int* number) {
  char* end = nullptr;
  errno = 0;
  const long value = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < least || value > most) return false;
  *number = static_cast<int>(value);
  return true;
}

// Fills `*options`; afterwards argv[optind] is the command. Returns false on wrong usage.
bool parse_options(int argc, char** argv, Options* options, bool* help) {
  static const option kLongOptions[] = {{"json", no_argument, nullptr, 'j'},
                                        {"socket", required_argument, nullptr, 's'},
                                        {"timeout", required_argument, nullptr, 't'},
                                        {"list", no_argument, nullptr, 'l'},
                                        {"against", required_argument, nullptr, 'a'},
                                        {"help", no_argument, nullptr, 'h'},
                                        {nullptr, 0, nullptr, 0}};
  bool valid = true;
  for (;;) {
    switch (getopt_long(argc, argv, "", kLongOptions, nullptr)) {
      case -1:
        return valid;
      case 'j':
        options->json = true;
        break;
      case 's':
        valid = valid && parse_number(optarg, 0, INT32_MAX, &options->socket_number);
        break;
      case 't':
        valid = valid && parse_number(optarg, 1, kMaxTimeoutSeconds, &options->timeout_seconds);
        break;
      case 'l':
        options->list = true;
        break;
      case 'a':
        options->against = optarg;
        valid = valid && *optarg != '\0';
        break;
      case 'h':
        *help = true;
        break;
      default:
        valid = false;
    }
  }
}

// Makes the path absolute. False when the current directory has no name any more: the daemon
// would take the relative path from a directory of its own.
bool make_absolute(std::string* path) {
  if ((*path)[0] == '/') return true;
  char* current = getcwd(nullptr, 0);
  if (current == nullptr) return false;
  *path = std::string(current) + "/" + *path;
  free(current);
  return true;
}

int run_update(const Options& options, std::string source, std::string destination) {
  if ((!source.empty() && !make_absolute(&source)) || !make_absolute(&destination))
    return usage_error(std::string("no current directory: ") + strerror(errno));
  return request_update(options, source, destination);
}

int run_role(const Options& options, const std::string& role) {
  if (role != "active" && role != "standby") return usage_error("no such role: " + role);
  return set_role(options, role == "active");
}

int run_verify(const Options& options) {
  if (options.list && !options.against.empty())
    return usage_error("--list and --against exclude each other");
  return verify_trees(options);
}

int run_command(const Options& options, const std::vector<std::string>& words) {
  // An empty path would turn an update into a deletion and a deletion into an exchange.
  for (const std::string& word : words) {
    if (word.empty()) return usage_error("an argument is empty");
    if (word.size() > kCmdMaxMessageSize / 4) return usage_error("an argument is too long");
  }
  const std::string& command = words[0];
  if (command == "verify" && words.size() == 1) return run_verify(options);
  if (options.list || !options.against.empty())
    return usage_error("--list and --against are for verify");
  if (command == "update" && words.size() == 3) return run_update(options, words[1], words[2]);
  if (command == "delete" && words.size() == 2) return run_update(options, "", words[1]);
  if (command == "sync" && words.size() == 1) return request_update(options, "", "");
  if (command == "diag" && words.size() == 2) return send_diagnostic(options, words[1]);
  if (command == "status" && words.size() == 1) return show_status(options);
  if (command == "fault" && words.size() == 1) return show_fault(options);
  if (command == "watch" && words.size() == 1) return watch_fault(options);
  if (command == "role" && words.size() == 2) return run_role(options, words[1]);
  return usage_error("wrong command or wrong number of arguments: " + command);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  bool help = false;
  if (!parse_options(argc, argv, &options, &help)) return usage_error("wrong option");
  if (help) {
    fputs(kHelp, stdout);
    return kDone;
  }
  if (optind >= argc) return usage_error("no command given");
  const int status = run_command(options, {argv + optind, argv + argc});
  // An answer that could not be shown was not given.
  return fflush(stdout) == 0 ? status : kNoAnswer;
}
