#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "platform/daemon.h"
#include "platform/util.h"
#include "redundancy_health/frame/daemon_main.h"

int main(int argc, char** argv) {
  if (argc > 1 && strcmp(argv[1], "-x") == 0) {
    if (argc > 2) g_cmd_socket_num = static_cast<int32_t>(strtol(argv[2], nullptr, 10));
    g_foreground = 1;
    debug_log_to_stdout(1);
    // The modes of created files are part of what is replicated; the caller's umask is not.
    umask(0022);
    return daemon_main(argc, argv);
  }
  return daemon_create("CLUS_SYNC", daemon_main, argc, argv);
}
