#include "redundancy_health/rpc/rpc_service.h"

#include <errno.h>
#include <string.h>
#include <sys/eventfd.h>

#include <utility>

#include "platform/storage.h"
#include "redundancy_health/frame/checked_lock.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/result_codes.h"

namespace {

constexpr int32_t kMaxWaitingCalls = 100;  // refuse a call when more than this many are waiting

// Waits until rpc_stage is `stage`.
void wait_for_stage(uint32_t stage) REQUIRES(g_context.rpc_mutex) {
  while (g_context.rpc_stage != stage) {
    CHECK_ZERO(pthread_cond_wait(&g_context.rpc_cond, &g_context.rpc_mutex));
  }
}

// Counts the caller, waits for its turn and publishes the request. False if too many callers wait.
bool admit_request(const uint8_t* message, uint32_t size, bool compare) {
  HOLD_MUTEX(g_context.rpc_mutex);
  if (g_context.waiting_rpc_count > kMaxWaitingCalls) return false;
  g_context.waiting_rpc_count += 1;
  wait_for_stage(RPC_IDLE);
  g_context.rpc_msg = message;
  g_context.current_rpc_size = size;
  g_context.rpc_compare = compare;
  g_context.rpc_stage = RPC_REQUESTING;
  storage_cfg_set_result(&g_context.rpc_result, RESULT_LOCAL_FAILED,
                         "Local update dispatch never completed");
  return true;
}

void refuse_request(RpcResult* result) {
  storage_cfg_set_result(result, RESULT_EXCHANGE_FAILED, "Too many RPC calls are already waiting");
  result->local_ok = 0;  // nothing was applied
  LOG(3, "Too many RPC calls are pending.");
}

// Wakes sync_thread. On failure returns false, with the reason in `*result`.
bool announce_request(RpcResult* result) {
  if (eventfd_write(g_context.rpc_fd, 1) == 0) return true;
  storage_cfg_set_result(result, RESULT_LOCAL_FAILED, "Write to eventfd failed: %s",
                         strerror(errno));
  LOG(3, "%s", result->reason);
  return false;
}

// Announces the request, waits for the outcome and lets the next caller proceed. Returns the report
// of a comparison, or -1.
int complete_request(RpcResult* result) {
  const bool announced = announce_request(result);
  HOLD_MUTEX(g_context.rpc_mutex);
  if (announced) {
    wait_for_stage(RPC_COMPLETE);
    *result = g_context.rpc_result;
  }
  g_context.rpc_stage = RPC_IDLE;
  g_context.rpc_msg = nullptr;
  g_context.current_rpc_size = 0;
  g_context.rpc_compare = 0;
  const int report = std::exchange(g_context.rpc_report, -1);
  CHECK_ZERO(pthread_cond_broadcast(&g_context.rpc_cond));
  g_context.waiting_rpc_count -= 1;
  return report;
}

}  // namespace

void on_rpc_update(RpcResult* result, const uint8_t* message, uint32_t size) {
  storage_cfg_set_result(result, RESULT_OK, nullptr);
  const int length = static_cast<int>(size);
  const auto* path = reinterpret_cast<const char*>(message);
  LOG(7, "RPC update <enter>: backlog=%d path=%.*s", peek_waiting_rpc_count(&g_context), length,
      path);
  if (!admit_request(message, size, false)) return refuse_request(result);
  LOG(7, "RPC update <requesting>: path=%.*s", length, path);
  complete_request(result);
  LOG(7, "RPC update <complete>: path=%.*s, (local_ok=%d remote_ok=%d peer_present=%c) %s", length,
      path, result->local_ok, result->remote_ok, static_cast<int>(result->peer_present),
      result->reason);
}

int on_rpc_compare(RpcResult* result) {
  storage_cfg_set_result(result, RESULT_OK, nullptr);
  if (!admit_request(nullptr, 0, true)) {
    refuse_request(result);
    return -1;
  }
  const int report = complete_request(result);
  if (report < 0 && result->success && result->peer_present == 'Y') {
    // Another daemon joined at the moment when the peer left.
    storage_cfg_set_result(result, RESULT_LOCAL_FAILED, "The peer left during the comparison");
  }
  return report;
}
