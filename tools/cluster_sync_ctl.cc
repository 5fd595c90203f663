// Command-line client of cluster_sync_daemon: sends updates and diagnostic commands to its command
// socket, shows the state of replication and compares the trees of the two EMs.

#include <errno.h>
#include <getopt.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "platform/cmdsockserver.h"
#include "tools/commands.h"
#include "tools/interrupt.h"
#include "tools/output.h"

namespace {

constexpr double kMaxTimeoutSeconds = 24.0 * 60 * 60;

constexpr char kCommonOptions[] = "jqsthV";  // letters of the options of every command

constexpr char kHelp[] =
    R"(Usage: cluster_sync_ctl [OPTION]... COMMAND

Is replication working?
  status                show the daemon, this EM's number and role, the last
                        recorded state of the fault, the state of replication
                        and the members of the group
  metrics [--textfile FILE]
                        the same for Prometheus; FILE is replaced atomically
  fault                 show only the last recorded state of the fault; works
                        without the daemon
  watch                 show the state of the fault, then one line per change,
                        until interrupted

Do both EMs hold the same files?
  compare               compare through both daemons, changing no file: a line
                        with counts for each tree, then one for each file that
                        is only here (<), only there (>) or differs (!)
  verify                read the four trees and print a line with a digest for
                        each, the same on both EMs if the trees are identical
  verify --list         print one line per chunk, for use on the other EM
  verify --against FILE compare with the other EM's list ("-": standard input)
                        and name the files that differ, for example
                        ssh OTHER cluster_sync_ctl verify --list |
                          cluster_sync_ctl verify --against -

What happened?
  explain [LOG [LOG]]   show one row for each exchange in the daemon's log or in
                        the logs of both EMs: the journal, the private log or a
                        dump of the flight recorder (none or "-": standard
                        input)
  explain --exchange N  draw the exchange of row N, message by message
  explain --exchange N --svg FILE
                        the same as a picture

Change files on both EMs:
  put FILE DEST         publish FILE ("-": standard input), from any file system,
                        as the replicated file DEST
  edit DEST             open a copy of DEST in $VISUAL or $EDITOR and publish it
  update SRC DEST       rename SRC, on the same file system, onto the replicated
                        file DEST
  delete DEST           delete the replicated file DEST
  sync                  only run an exchange with the other EM

Get back what exchanges have deleted or replaced here:
  kept                  list the kept files (see KEEP_REPLACED_MIB): time, tree,
                        deleted or replaced, size and NAME
  kept restore NAME [DEST]
                        publish one again, like put, at its old place or as DEST
                        ("-": write it to standard output)
  kept diff NAME        compare one with the file that is there now

Operate:
  role active|standby   set the role of this EM. To switch, run standby there,
                        active here, then sync here. active is refused if a tree
                        is missing, the partition is not mounted, or the other
                        EM would lose more than half of a shared tree
  help [COMMAND]        show this text, or its part about a command
  diag COMMAND[=ARG]    send a diagnostic command to the daemon; the manual page
                        lists them

put, edit, kept restore: DEST belongs to the caller afterwards.

Options:
  --mode MODE           for put and edit: 600 or 644; without it, the mode of
                        FILE and DEST decides
  --force               for role active: skip the checks
  --allow-deletions     for sync: also make deletions that MAX_DELETED_PERCENT
                        would prevent
  --progress            for sync: show the elapsed time on a terminal
  --json                print the answer as one line of JSON
  -q, --quiet           print nothing when a change has succeeded
  --socket N            number of the daemon's command socket (default 2006)
  --timeout SECONDS     time limit for input and answer (default 60), such as 0.5
  -h, --help            show this text, or its part about a command
  --version             show the version

Exit status:
  0  success; for fault: healthy, or nothing recorded yet
  1  the daemon reports a failure, or the request is impossible; for status and
     fault: replication is failing or the other EM is away; for verify and
     compare: the trees differ; for kept diff: the files differ
  2  wrong usage
  3  no daemon answers, it does not answer in time, or the answer cannot be
     understood; for verify: something could not be read; for compare: also
     when the other EM is away
)";

constexpr option kLongOptions[] = {
    {"json", no_argument, nullptr, 'j'},           {"quiet", no_argument, nullptr, 'q'},
    {"socket", required_argument, nullptr, 's'},   {"timeout", required_argument, nullptr, 't'},
    {"list", no_argument, nullptr, 'l'},           {"against", required_argument, nullptr, 'a'},
    {"mode", required_argument, nullptr, 'm'},     {"progress", no_argument, nullptr, 'p'},
    {"exchange", required_argument, nullptr, 'e'}, {"svg", required_argument, nullptr, 'g'},
    {"force", no_argument, nullptr, 'f'},          {"allow-deletions", no_argument, nullptr, 'd'},
    {"help", no_argument, nullptr, 'h'},           {"version", no_argument, nullptr, 'V'},
    {"textfile", required_argument, nullptr, 'x'}, {nullptr, 0, nullptr, 0}};

// The name of an option, given its letter.
std::string option_name(char letter) {
  const option* found = kLongOptions;
  while (found->name != nullptr && found->val != letter)
    ++found;
  return found->name != nullptr ? std::string("--") + found->name : std::string("-") + letter;
}

// Converts seconds, which may have a fraction, to milliseconds.
bool parse_seconds(const char* text, int* ms) {
  char* end = nullptr;
  const double seconds = strtod(text, &end);
  if (end == text || *end != '\0' || !(seconds >= 0.001 && seconds <= kMaxTimeoutSeconds))
    return false;
  *ms = static_cast<int>(lround(seconds * 1000));
  return true;
}

// Parses a whole number from `least` to `most`.
bool parse_number(const char* text, int base, long least, long most, int* number) {
  char* end = nullptr;
  errno = 0;
  const long value = strtol(text, &end, base);
  if (errno != 0 || end == text || *end != '\0' || value < least || value > most) return false;
  *number = static_cast<int>(value);
  return true;
}

std::string socket_path(int number) {
  char path[sizeof kCmdSocketFormat + 10];
  snprintf(path, sizeof path, kCmdSocketFormat, number);
  return path;
}

// Stores one option. Returns false when its value is invalid.
bool take_option(char letter, const char* value, Options* options) {
  int number = 0;
  switch (letter) {
    case 'j':
      return options->json = true;
    case 'q':
      return options->quiet = true;
    case 's':
      if (!parse_number(value, 10, 0, INT32_MAX, &number)) return false;
      options->socket = socket_path(number);
      return true;
    case 't':
      return parse_seconds(value, &options->timeout_ms);
    case 'l':
      return options->list = true;
    case 'a':
      options->against = value;
      return *value != '\0';
    case 'm':
      return parse_number(value, 8, 0, 0777, &options->mode);
    case 'f':
      return options->force = true;
    case 'd':
      return options->allow_deletions = true;
    case 'p':
      return options->progress = true;
    case 'e':
      return parse_number(value, 10, 1, INT32_MAX, &options->exchange);
    case 'g':
      options->svg = value;
      return *value != '\0';
    case 'x':
      options->textfile = value;
      return *value != '\0';
    default:
      return true;
  }
}

// Fills `*options`; afterwards argv[optind] is the command. Returns what is wrong, or an empty
// text.
std::string parse_options(int argc, char** argv, Options* options) {
  opterr = 0;
  for (;;) {
    const int letter = getopt_long(argc, argv, ":hq", kLongOptions, nullptr);
    if (letter == -1) return "";
    const char* word = argv[optind - 1];
    if (letter == '?')
      return "no such option: " + (optopt > 0 && optopt < 128
                                       ? option_name(static_cast<char>(optopt))
                                       : std::string(word));
    if (letter == ':') return "an option lacks its value: " + std::string(word);
    options->given += static_cast<char>(letter);
    if (!take_option(static_cast<char>(letter), optarg, options))
      return "wrong value of " + option_name(static_cast<char>(letter)) + ": " + optarg;
  }
}

bool begins_entry(const std::string& line) {
  return line.starts_with("  ") && line[2] != ' ';
}

// Prints the help, or its part about a command.
int show_help(const Options& /*options*/, const Words& words);

struct Command {
  const char* name;
  size_t least_words;
  size_t most_words;    // SIZE_MAX: any number
  const char* options;  // letters of the command's own options
  int (*run)(const Options& options, const Words& words);
};

constexpr Command kCommands[] = {
    {"status", 0, 0, "", show_status},      {"fault", 0, 0, "", show_fault},
    {"watch", 0, 0, "", watch_fault},       {"compare", 0, 0, "", compare_trees},
    {"verify", 0, 0, "la", verify_trees},   {"put", 2, 2, "m", put_file},
    {"edit", 1, 1, "m", edit_file},         {"update", 2, 2, "", request_update},
    {"delete", 1, 1, "", request_deletion}, {"sync", 0, 0, "pd", request_sync},
    {"role", 1, 1, "f", set_role},          {"diag", 1, 1, "", send_diagnostic},
    {"metrics", 0, 0, "x", show_metrics},   {"explain", 0, 2, "eg", explain_trace},
    {"kept", 0, 3, "", show_kept},          {"help", 0, 1, "", show_help},
};

// Whether an entry of the help is about the command or one of its own options.
bool concerns(const std::string& line, const Command& command) {
  const std::string entry = line.substr(2, line.find_first_of(" |", 2) - 2);
  if (entry == command.name) return true;
  for (const char* letter = command.options; *letter != '\0'; ++letter) {
    if (entry == option_name(*letter)) return true;
  }
  return false;
}

int show_help(const Options& /*options*/, const Words& words) {
  if (words.empty()) {
    fputs(kHelp, stdout);
    return kDone;
  }
  const Command* command = kCommands;
  while (command != std::end(kCommands) && words[0] != command->name)
    ++command;
  if (command == std::end(kCommands)) return usage_error("no such command: " + words[0]);
  std::istringstream help(kHelp);
  bool wanted = false;
  for (std::string line; std::getline(help, line);) {
    if (begins_entry(line))
      wanted = concerns(line, *command);
    else if (!line.starts_with("   "))
      wanted = false;
    if (wanted) printf("%s\n", line.c_str());
  }
  return kDone;
}

int run_command(const Options& options, const std::string& name, const Words& words) {
  for (const std::string& word : words) {
    if (word.empty()) return usage_error("an argument is empty");
    if (word.size() > kCmdMaxMessageSize / 4) return usage_error("an argument is too long");
  }
  for (const Command& command : kCommands) {
    if (name != command.name) continue;
    if (words.size() < command.least_words || words.size() > command.most_words)
      return usage_error("wrong number of arguments: " + name);
    const std::string known = std::string(kCommonOptions) + command.options;
    const size_t other = options.given.find_first_not_of(known);
    if (other != std::string::npos)
      return usage_error(option_name(options.given[other]) + " is not an option of " + name);
    return command.run(options, words);
  }
  return usage_error("no such command: " + name);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const std::string problem = parse_options(argc, argv, &options);
  if (!problem.empty()) return usage_error(problem);
  Words words(argv + optind, argv + argc);
  if (options.given.find('V') != std::string::npos) {
    printf("cluster_sync_ctl %s\n", cluster_sync_version());
    return kDone;
  }
  if (options.given.find('h') != std::string::npos) words.insert(words.begin(), "help");
  if (words.empty()) return usage_error("no command given");
  const std::string command = words[0];
  words.erase(words.begin());
  const int status = run_command(options, command, words);
  const bool shown = fflush(stdout) == 0;
  end_by_signal();
  return shown ? status : kNoAnswer;
}
