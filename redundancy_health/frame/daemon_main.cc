#include "redundancy_health/frame/daemon_main.h"

#include <malloc.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/cmdsockserver.h"
#include "platform/daemon.h"
#include "platform/em.h"
#include "redundancy_health/frame/cleanup_thread.h"
#include "redundancy_health/frame/exit_wait.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/service_status.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/frame/sync_context.h"
#include "redundancy_health/frame/version.h"
#include "redundancy_health/rpc/notification.h"
#include "redundancy_health/transport/sync_thread.h"

uint8_t g_foreground = 0;
int32_t g_cmd_socket_num = 2006;

namespace {

constexpr int kLookSeconds = 10;  // between two checks of the heartbeat

}  // namespace

int daemon_main(int, char**) {
  install_out_of_memory_check();
  // One heap for all threads. A thread's own heap grows by a page and a system call at a time.
  mallopt(M_ARENA_MAX, 1);
  LOG(6, "Starting cluster_sync_daemon");
  LOG(6, "Version %s", kVersion);
  check_em_number();
  init_context(&g_context);
  start_state_report();
  // Static: a worker may outlive this function and still use its server.
  static CmdServer* cmd_server;
  cmd_server = cmd_server_create(g_cmd_socket_num, on_rpc_notification);
  CHECK_NOT_NULL(cmd_server);
  g_context.rpc_fd = eventfd(0, 0);
  CHECK_NOT_NEGATIVE(g_context.rpc_fd);

  pthread_t cpg_pthread_sync;
  pthread_t cleanup_pthread;
  CHECK_ZERO(Create_Thread(&cpg_pthread_sync, nullptr, sync_thread_fn, &g_context, "sync_thread"));
  CHECK_ZERO(
      Create_Thread(&cleanup_pthread, nullptr, cleanup_thread_fn, nullptr, "cleanup_thread"));
  announce_main_process();
  if (!g_foreground) daemon_signal_daemonize_complete();
  CHECK_ZERO(cmd_server_start(cmd_server));

  sleep(1);
  do {
    tell_service_manager(watch_heartbeat());
  } while (!exit_requested_within(kLookSeconds));

  LOG(4, "cluster_sync_daemon clean shutdown requested");
  const pthread_t cmd_server_pthread = cmd_server->thread;
  cmd_server_shutdown(cmd_server);
  pthread_join(cmd_server_pthread, nullptr);
  pthread_join(cpg_pthread_sync, nullptr);
  pthread_join(cleanup_pthread, nullptr);
  empty_flight_recorder();
  LOG(6, "Exiting cluster_sync_daemon");
  return 0;
}
