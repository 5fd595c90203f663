#include "redundancy_health/exchange/local_request.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "platform/em.h"
#include "redundancy_health/catalog/confined_path.h"
#include "redundancy_health/catalog/digest_file.h"
#include "redundancy_health/catalog/pinned_path.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/exchange/rpc_request.h"
#include "redundancy_health/frame/checked_lock.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/frame/statistics.h"
#include "redundancy_health/transport/exchange_outcome.h"

namespace {

// Formats the first bytes of a message for the log.
void format_printable(const uint8_t* message, uint32_t size, char (&text)[100]) {
  size_t length = 0;
  text[0] = '\0';
  for (uint32_t i = 0; i < size && length <= 94; ++i) {
    const bool printable = message[i] >= 0x20 && message[i] <= 0x7E;
    length += static_cast<size_t>(
        snprintf(text + length, sizeof(text) - length, printable ? "%c" : "\\x%02x", message[i]));
  }
}

// Completes the waiting request with an error. No exchange runs, and no later exchange gets the
// error. The caller wakes up: do not use its bytes afterwards.
#define REFUSE(ctx, code, ...)                                                      \
  do {                                                                              \
    end_exchange_full(ctx, code, __VA_ARGS__);                                      \
    LOG_AS(__func__, 3, !(ctx)->cpg_result.benign, "%s", (ctx)->cpg_result.reason); \
    reset_cpg_result(ctx);                                                          \
  } while (0)

// Pins a path in a tree that this EM replicates to the peer. Returns 0 or an error number.
int pin_destination(const char* path, PinnedPath* destination) {
  TreePath place;
  const int error = check_tree_path(path, &place);
  if (error != 0) return error;
  return place.root_index == kOtherEmRoot ? EPERM : pin_path(place.root_index, path, destination);
}

// Pins a source, which may be anywhere. Returns 0 or an error number.
int pin_source(const char* path, PinnedPath* source) {
  TreePath place;
  return split_tree_path(path, &place) ? pin_path(place.root_index, path, source)
                                       : pin_outside_path(path, source);
}

// Completes a request whose change is applied but may not survive a power failure. Counts as a
// failed exchange; the next one carries the change to the peer.
#define FAIL_APPLIED(ctx, ...)            \
  do {                                    \
    mark_applied(ctx);                    \
    end_exchange_error(ctx, __VA_ARGS__); \
  } while (0)

bool delete_destination(SyncContext* ctx, const char* destination) {
  static constexpr char kFailed[] = "Could not delete file (%s): %s";
  // `cluster_sync_ctl explain` reads this format.
  LOG(7, "SYNC RPC delete: dest=%s", destination);
  PinnedPath file;
  int error = pin_destination(destination, &file);
  if (error == 0 && unlinkat(file.dir_fd(), file.name, 0) != 0) error = errno;
  if (error != 0) {
    REFUSE(ctx, error == ENOENT ? RESULT_REFUSED_BENIGN : RESULT_REFUSED, kFailed, strerror(error),
           destination);
    return false;
  }
  if (fsync(file.dir_fd()) == 0) return true;
  FAIL_APPLIED(ctx, kFailed, strerror(errno), destination);
  return false;
}

// Syncs the source, then renames it. Returns 0 or an error number. Checks first whether a rename is
// possible, because a sync may take long.
int sync_and_rename(const PinnedPath& source, const PinnedPath& destination) {
  if (!storage_can_rename(source.dir_fd(), destination.dir_fd())) return EXDEV;
  if (storage_sync_content(source.dir_fd(), source.name) != 0) return errno;
  const int r = renameat(source.dir_fd(), source.name, destination.dir_fd(), destination.name);
  return r == 0 ? 0 : errno;
}

// Returns 0 or an error number. Always removes the digest cache file of the destination, and
// removes it first: if the daemon were killed in between, its digests could match the new file of
// the same size and second.
int rename_onto(const RpcRequest& request, PinnedPath* source, PinnedPath* destination) {
  int error = pin_destination(request.destination, destination);
  // Old digests that stay would hide the change from the peer, and the answer would be a success. A
  // directory of that name holds none.
  if (error == 0 && !remove_digest_file(*destination, request.destination) && errno != ENOENT &&
      errno != EISDIR) {
    return errno;
  }
  if (error != 0 && error != ENOENT) return error;  // for a missing directory the rename fails
  if (have_error_injection(g_diag_params.fail_rename_path, request.destination)) return EDOM;
  stats.n_atomic_updates_from_self += 1;
  if (error == 0) error = pin_source(request.source, source);
  return error == 0 ? sync_and_rename(*source, *destination) : error;
}

// Syncs the new name first: if both names were lost, the file would be gone.
bool sync_names(const PinnedPath& source, const PinnedPath& destination) {
  return fsync(destination.dir_fd()) == 0 &&
         (source.directory == destination.directory || fsync(source.dir_fd()) == 0);
}

bool rename_to_destination(SyncContext* ctx, const RpcRequest& request) {
  static constexpr char kFailed[] = "Could not update file (%s): %s";
  // `cluster_sync_ctl explain` reads this format.
  LOG(7, "SYNC RPC rename: src=%s dest=%s", request.source, request.destination);
  PinnedPath source;
  PinnedPath destination;
  const int error = rename_onto(request, &source, &destination);
  if (error != 0) {
    REFUSE(ctx, RESULT_REFUSED, kFailed, strerror(error), request.destination);
    return false;
  }
  if (sync_names(source, destination)) return true;
  FAIL_APPLIED(ctx, kFailed, strerror(errno), request.destination);
  return false;
}

// Applies a request to the local trees. Returns false if it was completed with an error.
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
  // `cluster_sync_ctl explain` reads this format.
  LOG(7, "SYNC running explicit sync request");
  return true;
}

}  // namespace

void mark_applied(SyncContext* ctx) {
  HOLD_MUTEX(ctx->rpc_mutex);
  if (ctx->rpc_stage == RPC_REQUESTING) ctx->rpc_stage = RPC_PENDING;
}

bool apply_local_request(SyncContext* ctx) {
  ctx->state_time = get_uptime();
  const uint8_t* message;
  uint32_t size;
  // A wake-up may arrive after its request was answered. Its bytes are invalid then.
  if (read_rpc_request(ctx, &message, &size) != RPC_REQUESTING) return false;
  if (request_is_comparison(ctx)) {
    LOG(7, "SYNC running comparison");
    return true;
  }
  RpcRequest request;
  if (!parse_rpc_request(message, size, &request)) {
    char text[100];
    format_printable(message, size, text);
    LOG(3, "Bad RPC message data: size=%u [%s]", size, text);
    REFUSE(ctx, RESULT_REFUSED, "Received unparseable RPC message");
    return false;
  }
  beat(kSyncing);
  ctx->change_overtaken = 0;
  const bool applied = apply_request(ctx, request);
  // Slow syncs do not count as lack of progress of an exchange.
  ctx->state_time = get_uptime();
  if (!applied) release_kept_directory();
  return applied;
}
