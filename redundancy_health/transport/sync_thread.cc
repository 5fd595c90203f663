#include "redundancy_health/transport/sync_thread.h"

#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

#include "platform/em.h"
#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/catalog/unsynced.h"
#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/frame/checked_lock.h"
#include "redundancy_health/frame/exit_flag.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/frame/sync_context.h"
#include "redundancy_health/transfer/replaced_files.h"
#include "redundancy_health/transport/cpg_message.h"
#include "redundancy_health/transport/exchange_outcome.h"

namespace {

constexpr char kGroupName[] = "em-sync";
constexpr int kPollTimeout = 1000;     // ms
constexpr int32_t kShortTimeout = 10;  // s without progress: the exchange ends
constexpr int32_t kLongTimeout = 45;   // s without progress: the process ends
constexpr int32_t kResyncDelay = 100;  // passes between resyncs
constexpr int kMaxJoinCalls = 100;
constexpr useconds_t kJoinDelay = 10000;  // 10 ms

#define FATAL(...)       \
  do {                   \
    LOG(3, __VA_ARGS__); \
    on_severe_error();   \
  } while (0)

cs_error_t join_group(SyncContext* ctx) {
  struct cpg_name group;
  memset(&group, 0, sizeof(group));
  strncpy(group.value, kGroupName, sizeof(group.value) - 1);
  group.length = static_cast<uint32_t>(strlen(group.value));
  cs_error_t rc = CS_ERR_TRY_AGAIN;
  for (int call = 0; call < kMaxJoinCalls; ++call) {
    if (call > 0) usleep(kJoinDelay);
    rc = cpg_join(ctx->cpg_handle, &group);
    if (rc != CS_ERR_TRY_AGAIN) break;
  }
  return rc;
}

// Connects and joins. Returns the descriptor to poll.
int connect_to_cpg(SyncContext* ctx) {
  ctx->cpg_initialized = 0;
  cpg_model_v1_data_t model;
  memset(&model, 0, sizeof(model));
  model.model = CPG_MODEL_V1;
  model.cpg_deliver_fn = on_cpg_message;
  model.cpg_confchg_fn = on_cpg_config;
  cs_error_t rc = cpg_model_initialize(&ctx->cpg_handle, CPG_MODEL_V1,
                                       reinterpret_cast<cpg_model_data_t*>(&model), nullptr);
  if (rc != CS_OK) FATAL("cpg_initialize failed with result %d", rc);
  ctx->cpg_initialized = 1;
  rc = join_group(ctx);
  if (rc != CS_OK) FATAL("cpg_join failed with result %d", rc);
  LOG(7, "Joined CPG group '%s'", kGroupName);
  rc = cpg_context_set(ctx->cpg_handle, ctx);
  if (rc != CS_OK) FATAL("cpg_context_set failed with result %d", rc);
  rc = cpg_local_get(ctx->cpg_handle, &ctx->cpg_local_nodeid);
  if (rc != CS_OK) FATAL("cpg_local_get failed with result %d", rc);
  int fd = -1;
  rc = cpg_fd_get(ctx->cpg_handle, &fd);
  if (rc != CS_OK) FATAL("cpg_fd_get failed: %d", rc);
  return fd;
}

void dispatch_cpg(SyncContext* ctx, short revents) {
  if ((revents & POLLIN) != 0) {
    const cs_error_t rc = cpg_dispatch(ctx->cpg_handle, CS_DISPATCH_ALL);
    if (rc != CS_OK) FATAL("cpg_dispatch failed: %d", rc);
  } else if ((revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
    // Corosync has gone away, and polling on would spin. The service manager restarts the daemon.
    FATAL("CPG connection lost: revents=0x%x", static_cast<unsigned>(revents));
  }
}

void take_rpc_wakeup(SyncContext* ctx) {
  eventfd_t count;
  if (eventfd_read(ctx->rpc_fd, &count) != 0) {
    FATAL("Read from eventfd failed: %s", strerror(errno));
  }
  if (ctx->cur_state != ST_UNLOCKED || pause_before_exchange(ctx) > 0) {
    ctx->rpc_deferred = 1;
  } else {
    on_sync_rpc_update(ctx);
  }
}

// A request that came during the pause after a failed exchange.
bool request_is_put_off(const SyncContext* ctx) {
  return ctx->rpc_deferred && ctx->cur_state == ST_UNLOCKED;
}

void watch_timeouts(SyncContext* ctx) {
  if (request_is_put_off(ctx) ||
      (read_rpc_stage(ctx) == RPC_IDLE && ctx->cur_state == ST_UNLOCKED)) {
    ctx->state_time = get_uptime();
    return;
  }
  const int32_t now = get_uptime();
  if (now == -1 || ctx->state_time == -1) return;
  const int32_t elapsed = now - ctx->state_time;
  if (elapsed > kLongTimeout) {
    FATAL("Detected long sync state timeout.");
  } else if (elapsed > kShortTimeout) {
    LOG(3, "Detected short sync state timeout");
    // The own release was lost. Without this, a deferred request would wait for it forever.
    if (ctx->cur_state == ST_DONE) ctx->rpc_deferred = 0;
    end_exchange_error(ctx, "Operation timed out");
    sleep(1);
  }
}

// Claims rpc_stage for an exchange of the daemon itself. False if a request has it or a pause runs.
bool begin_resync(SyncContext* ctx) {
  HOLD_MUTEX(ctx->rpc_mutex);
  if (ctx->rpc_stage != RPC_IDLE || pause_before_exchange(ctx) != 0) return false;
  ctx->rpc_stage = RPC_LOCAL_BUSY;
  ctx->cur_exchange_em_is_active = 1;
  return true;
}

void count_down_to_resync(SyncContext* ctx) {
  if (ctx->resync_countdown == -1) return;
  if (--ctx->resync_countdown != 0) return;
  if (!this_em_is_active()) return;
  const bool begun = begin_resync(ctx);
  ctx->resync_countdown = begun ? kResyncDelay : 1;
  if (!begun) return;
  // `cluster_sync_ctl explain` reads this format.
  LOG(4, "Attempting to resync after delay because of previous sync error.");
  on_sync_state_change(ctx, ON_SYNC_REQ, ctx->cpg_local_nodeid, nullptr, nullptr, 0);
}

// Wakes up when a pause ends.
int poll_timeout(const SyncContext* ctx) {
  const int pause = pause_before_exchange(ctx);
  return pause > 0 ? std::min(pause, kPollTimeout) : kPollTimeout;
}

void run_loop(SyncContext* ctx, int cpg_fd) {
  while (!get_exit_daemon()) {
    beat(kAtRest);
    struct pollfd fds[2] = {{cpg_fd, POLLIN, 0}, {ctx->rpc_fd, POLLIN, 0}};
    if (poll(fds, 2, poll_timeout(ctx)) < 0) FATAL("Call to poll failed: %s", strerror(errno));
    dispatch_cpg(ctx, fds[0].revents);
    if ((fds[1].revents & POLLIN) != 0) take_rpc_wakeup(ctx);
    if (request_is_put_off(ctx)) serve_deferred_request(ctx);
    watch_timeouts(ctx);
    count_down_to_resync(ctx);
    report_context(*ctx);
  }
}

SyncContext* context_of(cpg_handle_t handle) {
  void* context = nullptr;
  const cs_error_t rc = cpg_context_get(handle, &context);
  CHECK_TRUE(rc == CS_OK);
  return static_cast<SyncContext*>(context);
}

bool is_this_process(uint32_t local_nodeid, uint32_t nodeid, uint32_t pid) {
  static thread_local const auto own_pid = static_cast<uint32_t>(getpid());
  return nodeid == local_nodeid && pid == own_pid;
}

}  // namespace

void* sync_thread_fn(void* context) {
  auto* ctx = static_cast<SyncContext*>(context);
  open_kept();
  const int cpg_fd = connect_to_cpg(ctx);
  // A request may arrive before the first idle pass. Without this, its timeout would count from
  // boot.
  ctx->state_time = get_uptime();
  run_loop(ctx, cpg_fd);
  if (ctx->cpg_initialized) {
    const cs_error_t rc = cpg_finalize(ctx->cpg_handle);
    if (rc != CS_OK) LOG(3, "cpg_finalize failed: %d", rc);
    ctx->cpg_initialized = 0;
  }
  free_file_list(&ctx->update_queue);
  forget_unsynced();
  forget_kept();
  return nullptr;
}

void on_cpg_message(cpg_handle_t handle, const struct cpg_name*, uint32_t nodeid, uint32_t pid,
                    void* message, size_t message_size) {
  SyncContext* ctx = context_of(handle);
  uint32_t sender = nodeid;
  // A second daemon on this node is the peer. Give it a node id that differs from ours.
  if (nodeid == ctx->cpg_local_nodeid && !is_this_process(ctx->cpg_local_nodeid, nodeid, pid)) {
    sender = nodeid == 1 ? 2 : 1;
  }
  CpgHeader header;
  if (message_size >= sizeof(header)) {
    memcpy(&header, message, sizeof(header));
    // Only wire messages may reach the state machine: the number of a local event would be taken
    // for a membership change, or abort.
    if (header.magic == kCpgMagic && header.command <= MSG_UPDATE_ACK) {
      on_sync_state_change(ctx, header.command, sender, &header,
                           static_cast<const uint8_t*>(message) + sizeof(header),
                           static_cast<uint32_t>(message_size - sizeof(header)));
      report_context(*ctx);
      return;
    }
  }
  end_exchange_error(ctx, "Invalid CPG message received");
}

void on_cpg_config(cpg_handle_t handle, const struct cpg_name* group_name,
                   const struct cpg_address* members, size_t member_count,
                   const struct cpg_address* left, size_t left_count,
                   const struct cpg_address* joined, size_t joined_count) {
  SyncContext* ctx = context_of(handle);
  const uint32_t nodeid = ctx->cpg_local_nodeid;
  const uint32_t flags =
      compute_membership_flags(nodeid, members, member_count, kSelfMember, kPeerMember) |
      compute_membership_flags(nodeid, joined, joined_count, kSelfJoined, kPeerJoined) |
      compute_membership_flags(nodeid, left, left_count, kSelfLeft, kPeerLeft);
  ctx->cpg_membership_flags = flags;
  report_members(members, member_count);
  if ((flags & (kSelfLeft | kPeerLeft)) != 0) {
    on_sync_state_change(ctx, ON_CPG_LEFT, nodeid, nullptr, nullptr, 0);
  }
  if ((flags & (kSelfJoined | kPeerJoined)) != 0) {
    on_sync_state_change(ctx, ON_CPG_JOINED, nodeid, nullptr, nullptr, 0);
  }
  LOG(7, "CPG config change [%.*s]: flags=%02x", static_cast<int>(sizeof(group_name->value)),
      group_name->value, ctx->cpg_membership_flags);
  report_context(*ctx);
}

uint32_t compute_membership_flags(uint32_t local_nodeid, const struct cpg_address* addresses,
                                  size_t count, uint32_t self_bit, uint32_t peer_bit) {
  uint32_t flags = 0;
  for (size_t i = 0; i < count; ++i) {
    flags |=
        is_this_process(local_nodeid, addresses[i].nodeid, addresses[i].pid) ? self_bit : peer_bit;
  }
  return flags;
}
