#include "redundancy_health/rpc/rpc_service.h"

#include <errno.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/em.h"
#include "redundancy_health/catalog/confined_path.h"
#include "redundancy_health/catalog/digest_file.h"
#include "redundancy_health/exchange/rpc_request.h"
#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/frame/statistics.h"
#include "redundancy_health/transport/exchange_outcome.h"

namespace {

constexpr int32_t kMaxWaitingCalls = 100;  // a call that finds more inside is refused

// A printable form of the first bytes of a message, for the log.
void format_printable(const uint8_t* message, uint32_t size, char (&text)[100]) {
  size_t length = 0;
  text[0] = '\0';
  for (uint32_t i = 0; i < size && length <= 94; ++i) {
    const bool printable = message[i] >= 0x20 && message[i] <= 0x7E;
    length += static_cast<size_t>(
        snprintf(text + length, sizeof(text) - length, printable ? "%c" : "\\x%02x", message[i]));
  }
}

// Completes the waiting request with an error; no exchange runs, and no later one hears of it. The
// caller wakes: its bytes are not to be touched afterwards.
#define REFUSE(ctx, code, ...)                                                      \
  do {                                                                              \
    end_exchange_full(ctx, code, __VA_ARGS__);                                      \
    LOG_AS(__func__, 3, !(ctx)->cpg_result.benign, "%s", (ctx)->cpg_result.reason); \
    reset_cpg_result(ctx);                                                          \
  } while (0)

// The reason why a destination is none that is replicated to the peer: an error number, or 0.
int check_destination(const char* destination) {
  TreePath place;
  const int error = check_tree_path(destination, &place);
  return error == 0 && place.root_index == kOtherEmRoot ? EPERM : error;
}

// A request that has changed the local trees, whether or not the state machine has taken it up.
void mark_applied(SyncContext* ctx) {
  CHECK_ZERO(pthread_mutex_lock(&ctx->rpc_mutex));
  if (ctx->rpc_stage == RPC_REQUESTING) ctx->rpc_stage = RPC_PENDING;
  CHECK_ZERO(pthread_mutex_unlock(&ctx->rpc_mutex));
}

// Completes a request whose change stands, but may not outlive a loss of power. It is a failed
// exchange: the next one takes the change to the peer.
#define FAIL_APPLIED(ctx, ...)            \
  do {                                    \
    mark_applied(ctx);                    \
    end_exchange_error(ctx, __VA_ARGS__); \
  } while (0)

bool delete_destination(SyncContext* ctx, const char* destination) {
  static constexpr char kFailed[] = "Could not delete file (%s): %s";
  LOG(7, "SYNC RPC delete: dest=%s", destination);
  int error = check_destination(destination);
  if (error == 0 && unlink(destination) != 0) error = errno;
  if (error != 0) {
    REFUSE(ctx, error == ENOENT ? RESULT_REFUSED_BENIGN : RESULT_REFUSED, kFailed, strerror(error),
           destination);
    return false;
  }
  if (storage_sync_name(destination) == 0) return true;
  FAIL_APPLIED(ctx, kFailed, strerror(errno), destination);
  return false;
}

// Returns 0 or an error number. What takes the destination's place is on the disk before it does. A
// source that cannot get there is not synced first: that takes as long as the medium wants.
int sync_and_rename(const char* source, const char* destination) {
  stats.n_atomic_updates_from_self += 1;
  if (!storage_can_rename(source, destination)) return EXDEV;
  return storage_sync_content(source) == 0 && rename(source, destination) == 0 ? 0 : errno;
}

// Returns 0 or an error number. The digest cache file of the old destination goes in any case, and
// first: whoever ends the daemon between the two would leave digests that fit a file of the same
// size and second.
int rename_onto(const char* source, const char* destination) {
  const int error = check_destination(destination);
  if (error != 0) return error;
  remove_digest_file(destination);
  if (have_error_injection(g_diag_params.fail_rename_path, destination)) return EDOM;
  return sync_and_rename(source, destination);
}

// The new name first: a file that is lost under both would be gone.
bool sync_names(const char* source, const char* destination) {
  if (storage_sync_name(destination) != 0) return false;
  const size_t length = static_cast<size_t>(strrchr(destination, '/') + 1 - destination);
  const bool same_directory =
      strncmp(source, destination, length) == 0 && strchr(source + length, '/') == nullptr;
  return same_directory || storage_sync_name(source) == 0;
}

bool rename_to_destination(SyncContext* ctx, const RpcRequest& request) {
  static constexpr char kFailed[] = "Could not update file (%s): %s";
  LOG(7, "SYNC RPC rename: src=%s dest=%s", request.source, request.destination);
  const int error = rename_onto(request.source, request.destination);
  if (error != 0) {
    REFUSE(ctx, RESULT_REFUSED, kFailed, strerror(error), request.destination);
    return false;
  }
  if (sync_names(request.source, request.destination)) return true;
  FAIL_APPLIED(ctx, kFailed, strerror(errno), request.destination);
  return false;
}

// Applies a request to the local trees. False when it was completed with an error.
bool apply_request(SyncContext* ctx, const RpcRequest& request) {
  const char* destination = request.destination;
  if (strstr(destination, kDigestPrefix) != nullptr) {
    REFUSE(ctx, RESULT_REFUSED_BENIGN,
           "Could not update file '%s': Paths cannot contain digest prefix", destination);
    return false;
  }
  ctx->cur_exchange_em_is_active = this_em_is_active();
  if (!ctx->cur_exchange_em_is_active && is_shared_root(root_of_path(destination))) {
    REFUSE(ctx, RESULT_REFUSED_NOT_ACTIVE, kNotActiveFormat, destination);
    return false;
  }
  if (*request.source != '\0') return rename_to_destination(ctx, request);
  if (*destination != '\0') return delete_destination(ctx, destination);
  LOG(7, "SYNC running explicit sync request");
  return true;
}

// Starts the exchange for a request that was applied. The state machine makes it pending, unless it
// is frozen and drops the event.
void start_exchange(SyncContext* ctx) {
  on_sync_state_change(ctx, ON_SYNC_REQ, ctx->cpg_local_nodeid, nullptr, nullptr, 0);
  if (ctx->cur_state == ST_UNLOCKED) mark_applied(ctx);
}

// Waits, with rpc_mutex held, until rpc_stage is `stage`.
void wait_for_stage(uint32_t stage) {
  while (g_context.rpc_stage != stage) {
    CHECK_ZERO(pthread_cond_wait(&g_context.rpc_cond, &g_context.rpc_mutex));
  }
}

// Takes a place and a turn, and publishes the request. False when too many callers are inside.
bool admit_request(RpcResult* result, const uint8_t* message, uint32_t size) {
  CHECK_ZERO(pthread_mutex_lock(&g_context.rpc_mutex));
  if (g_context.waiting_rpc_count > kMaxWaitingCalls) {
    storage_cfg_set_result(result, RESULT_EXCHANGE_FAILED,
                           "Too many RPC calls are already waiting");
    result->local_ok = 0;  // nothing was applied
    CHECK_ZERO(pthread_mutex_unlock(&g_context.rpc_mutex));
    LOG(3, "Too many RPC calls are pending.");
    return false;
  }
  g_context.waiting_rpc_count += 1;
  wait_for_stage(RPC_IDLE);
  g_context.rpc_msg = message;
  g_context.current_rpc_size = size;
  g_context.rpc_stage = RPC_REQUESTING;
  storage_cfg_set_result(&g_context.rpc_result, RESULT_LOCAL_FAILED,
                         "Local update dispatch never completed");
  CHECK_ZERO(pthread_mutex_unlock(&g_context.rpc_mutex));
  return true;
}

// Wakes sync_thread and waits for the outcome; frees the place.
void complete_request(RpcResult* result) {
  if (eventfd_write(g_context.rpc_fd, 1) != 0) {
    storage_cfg_set_result(result, RESULT_LOCAL_FAILED, "Write to eventfd failed: %s",
                           strerror(errno));
    LOG(3, "%s", result->reason);
    CHECK_ZERO(pthread_mutex_lock(&g_context.rpc_mutex));
  } else {
    CHECK_ZERO(pthread_mutex_lock(&g_context.rpc_mutex));
    wait_for_stage(RPC_COMPLETE);
    *result = g_context.rpc_result;
  }
  g_context.rpc_stage = RPC_IDLE;
  g_context.rpc_msg = nullptr;
  g_context.current_rpc_size = 0;
  CHECK_ZERO(pthread_cond_broadcast(&g_context.rpc_cond));
  g_context.waiting_rpc_count -= 1;
  CHECK_ZERO(pthread_mutex_unlock(&g_context.rpc_mutex));
}

}  // namespace

void on_rpc_update(RpcResult* result, const uint8_t* message, uint32_t size) {
  storage_cfg_set_result(result, RESULT_OK, nullptr);
  const int length = static_cast<int>(size);
  const auto* path = reinterpret_cast<const char*>(message);
  LOG(7, "RPC update <enter>: backlog=%d path=%.*s",
      static_cast<int32_t>(g_context.waiting_rpc_count), length, path);
  if (!admit_request(result, message, size)) return;
  LOG(7, "RPC update <requesting>: path=%.*s", length, path);
  complete_request(result);
  LOG(7, "RPC update <complete>: path=%.*s, (local_ok=%d remote_ok=%d peer_present=%c) %s", length,
      path, result->local_ok, result->remote_ok, static_cast<int>(result->peer_present),
      result->reason);
}

void on_sync_rpc_update(SyncContext* ctx) {
  ctx->state_time = get_uptime();
  CHECK_ZERO(pthread_mutex_lock(&ctx->rpc_mutex));
  const bool requested = ctx->rpc_stage == RPC_REQUESTING;
  const uint8_t* message = ctx->rpc_msg;
  const uint32_t size = ctx->current_rpc_size;
  CHECK_ZERO(pthread_mutex_unlock(&ctx->rpc_mutex));
  // A wake-up can outlive its request, whose bytes then are gone with its caller.
  if (!requested) return;
  RpcRequest request;
  if (!parse_rpc_request(message, size, &request)) {
    char text[100];
    format_printable(message, size, text);
    LOG(3, "Bad RPC message data: size=%u [%s]", size, text);
    REFUSE(ctx, RESULT_REFUSED, "Received unparseable RPC message");
    return;
  }
  if (apply_request(ctx, request)) start_exchange(ctx);
}
