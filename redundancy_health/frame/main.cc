#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "platform/daemon.h"
#include "platform/util.h"
#include "redundancy_health/frame/daemon_main.h"
#include "redundancy_health/frame/version.h"

namespace {

constexpr char kHelp[] =
    R"(Usage: cluster_sync_daemon [-x [NUMBER]]

Keeps directory trees identical on the two enclosure managers of a pair. Without
an argument it runs in the background and logs to syslog.

  -x [NUMBER]    run in the foreground and also log to standard output; NUMBER is
                 the number of the command socket (default 2006)
  -h, --help     show this text
  --version      show the version
)";

bool is_one_of(const char* word, const char* first, const char* second) {
  return strcmp(word, first) == 0 || strcmp(word, second) == 0;
}

// "-xy", "x" and "--x" have always started the daemon in the background, and start scripts may
// rely on that. Any other argument is an error.
bool is_spelled_like_x(const char* word) {
  return word[strspn(word, "-")] == 'x';
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && strcmp(argv[1], "-x") == 0) {
    if (argc > 2) g_cmd_socket_num = static_cast<int32_t>(strtol(argv[2], nullptr, 10));
    g_foreground = 1;
    debug_log_to_stdout(1);
    // The modes of created files are replicated, so they must not depend on the caller's umask.
    umask(0022);
    return daemon_main(argc, argv);
  }
  if (argc > 1 && is_one_of(argv[1], "-h", "--help")) return fputs(kHelp, stdout) < 0;
  if (argc > 1 && is_one_of(argv[1], "--version", "-V"))
    return printf("cluster_sync_daemon %s\n", kVersion) < 0;
  if (argc > 1 && !is_spelled_like_x(argv[1])) {
    fprintf(stderr, "cluster_sync_daemon: unknown argument: %s\n%s", argv[1], kHelp);
    return 2;
  }
  return daemon_create("CLUS_SYNC", daemon_main, argc, argv);
}
