#include "tools/diagnostic.h"

#include <sys/socket.h>

namespace {

pid_t listener_pid(const cluster_sync_connection* connection) {
  ucred listener = {};
  socklen_t size = sizeof listener;
  const int fd = cluster_sync_fd(connection);
  return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &listener, &size) == 0 ? listener.pid : 0;
}

}  // namespace

DiagnosticAnswer ask_diagnostic(const Options& options, const std::string& command) {
  DiagnosticAnswer answer;
  const int limit = options.timeout_ms;  // for each step: only the last step waits for the daemon
  cluster_sync_connection* connection = nullptr;
  answer.error = cluster_sync_open(options.socket.c_str(), limit, &connection);
  if (answer.error != 0) return answer;
  answer.error = cluster_sync_send_diag(connection, command.c_str(), limit);
  if (answer.error == 0)
    answer.error = cluster_sync_receive(connection, limit, &answer.status, nullptr);
  if (answer.error == 0) answer.daemon_pid = listener_pid(connection);
  cluster_sync_close(connection);
  return answer;
}
