#include "redundancy_health/exchange/state_machine.h"

#include "platform/em.h"
#include "redundancy_health/catalog/pinned_path.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/exchange/checkpoint.h"
#include "redundancy_health/exchange/difference_report.h"
#include "redundancy_health/exchange/listing.h"
#include "redundancy_health/exchange/local_request.h"
#include "redundancy_health/exchange/reconcile.h"
#include "redundancy_health/exchange/rpc_request.h"
#include "redundancy_health/frame/checked_lock.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/frame/statistics.h"
#include "redundancy_health/transfer/exchange_notes.h"
#include "redundancy_health/transfer/incoming.h"
#include "redundancy_health/transfer/outgoing.h"
#include "redundancy_health/transport/exchange_outcome.h"

namespace {

// One event, as passed to the handlers.
struct Event {
  uint32_t command;
  bool from_self;
  const CpgHeader* header;  // null for local events
  const uint8_t* payload;
  uint32_t payload_size;
};

#define CHECKPOINT(ctx) SKIP_IF_CANCELED(ctx, "on_sync_state_change", return )

bool state_machine_is_stuck() {
  HOLD_MUTEX(g_diag_params.mutex);
  return g_diag_params.statemachine_stuck != 0;
}

// Enters ST_PEERLOCK for the peer's exchange with these ids.
void lock_for_peer(SyncContext* ctx, uint32_t exchange_id, uint32_t sequence_id) {
  ctx->cur_state = ST_PEERLOCK;
  ctx->cur_exchange_compares = 0;
  ctx->peer_exchange_id = exchange_id;
  ctx->peer_sequence_id = sequence_id;
  ctx->state_time = get_uptime();
  reset_cpg_result(ctx);
}

// Makes an applied request pending. Returns the previous stage.
uint32_t take_up_request(SyncContext* ctx) {
  HOLD_MUTEX(ctx->rpc_mutex);
  const uint32_t stage = ctx->rpc_stage;
  if (stage == RPC_REQUESTING) ctx->rpc_stage = RPC_PENDING;
  ctx->cur_exchange_compares = stage != RPC_LOCAL_BUSY && ctx->rpc_compare;
  return stage;
}

// Starts an exchange if a request is pending. A request that lost the lock comes here again.
void on_sync_req(SyncContext* ctx) {
  if (ctx->cur_state != ST_UNLOCKED) return;
  ctx->state_time = get_uptime();
  const uint32_t stage = take_up_request(ctx);
  if (stage != RPC_REQUESTING && stage != RPC_PENDING && stage != RPC_LOCAL_BUSY) {
    end_exchange_error(ctx, "Unexpected RPC monitor state '%s'", rpc_stage_name(stage));
    return;
  }
  reset_cpg_result(ctx);
  // The role may have moved since this exchange was requested.
  ctx->cur_exchange_em_is_active = this_em_is_active();
  ctx->cur_sequence_id = 0;
  ctx->cur_state = ST_LOCKREQ;
  ++ctx->cur_exchange_id;
  // `cluster_sync_ctl explain` reads this format.
  LOG(7, "Starting new exchange id=%d active=%d", static_cast<int>(ctx->cur_exchange_id),
      ctx->cur_exchange_em_is_active);
  send_cpg_command(ctx, MSG_LOCK_REQ, 0, nullptr, nullptr, 0);
  stats.n_syncs_from_self += 1;
}

// Ends the exchange if it carries a local change to a shared tree without the right to do so: the
// role has moved since the change was made, even if it has come back.
void fail_change_without_rights(SyncContext* ctx) {
  RpcRequest request;
  const uint8_t* message;
  uint32_t size;
  read_rpc_request(ctx, &message, &size);
  const bool has_right = ctx->cur_exchange_em_is_active && !ctx->change_overtaken;
  if (has_right || !parse_rpc_request(message, size, &request) ||
      !is_shared_root(root_of_path(request.destination))) {
    return;
  }
  end_exchange_error(ctx, kNotActiveFormat, request.destination);
}

// The own lock request was delivered first: the pair is locked.
void on_lock_granted(SyncContext* ctx, const Event& event) {
  check_header_ids(ctx, event.header->exchange_id, &event.header->sequence_id, 0);
  CHECKPOINT(ctx);
  fail_change_without_rights(ctx);
  CHECKPOINT(ctx);
  if ((ctx->cpg_membership_flags & kPeerMember) == 0) {
    end_exchange(ctx);  // the peer is away
    return;
  }
  ctx->cur_state = ST_LISTREQ;
  const uint8_t* message;
  uint32_t size;
  read_rpc_request(ctx, &message, &size);
  send_cpg_command(ctx, MSG_LISTING_REQ, 0, nullptr, message, size);
}

void on_lock_req(SyncContext* ctx, const Event& event) {
  const char* state = sync_state_name(ctx->cur_state);
  switch (ctx->cur_state) {
    case ST_UNLOCKED:
      if (event.from_self) {
        end_exchange_error(ctx, "Unexpected LOCK_REQ message from self in UNLOCKED state");
      } else {
        lock_for_peer(ctx, event.header->exchange_id, event.header->sequence_id);
      }
      break;
    case ST_LOCKREQ:
      if (event.from_self) {
        on_lock_granted(ctx, event);
      } else {
        lock_for_peer(ctx, event.header->exchange_id, event.header->sequence_id);
      }
      break;
    case ST_PEERLOCK:
      if (!event.from_self) {
        lock_for_peer(ctx, event.header->exchange_id, event.header->sequence_id);
      }
      break;
    case ST_LISTREQ:
    case ST_UPDATE:  // from the peer: the late request of the EM that lost the lock
      if (event.from_self) {
        end_exchange_error(ctx, "Unexpected LOCK_REQ message from self in state %s", state);
      }
      break;
    case ST_DONE:
      if (!event.from_self) {
        end_exchange_error(ctx, "Unexpected LOCK_REQ message from peer in state %s", state);
      }
      break;
    default:
      end_exchange_error(ctx, "Received unexpected LOCK_REQ message in state %s", state);
      break;
  }
}

void on_lock_rel(SyncContext* ctx) {
  if (ctx->cur_state == ST_UNLOCKED || ctx->cur_state == ST_PEERLOCK || ctx->cur_state == ST_DONE) {
    if (ctx->cur_state == ST_PEERLOCK) report_served_exchange(ctx->cpg_result);
    ctx->cur_state = ST_UNLOCKED;
  } else {
    end_exchange_error(ctx, "Received early LOCK_REL message in state %s",
                       sync_state_name(ctx->cur_state));
  }
}

void on_listing_req(SyncContext* ctx, const Event& event) {
  if (ctx->cur_state == ST_PEERLOCK && !event.from_self) {
    check_header_ids(ctx, event.header->exchange_id, &event.header->sequence_id,
                     FLAG_PEER_EXCHANGE);
    CHECKPOINT(ctx);
    serve_listing_request(ctx, event.payload, event.payload_size);
  } else if (!(event.from_self && (ctx->cur_state == ST_LISTREQ || ctx->cur_state == ST_DONE))) {
    end_exchange_error(ctx, "Received unexpected LISTING_REQ message in state %s",
                       sync_state_name(ctx->cur_state));
  }
}

void on_listing_ack(SyncContext* ctx, const Event& event) {
  if (ctx->cur_state == ST_LISTREQ && !event.from_self) {
    check_header_ids(ctx, event.header->exchange_id, &event.header->sequence_id, 0);
    CHECKPOINT(ctx);
    if (ctx->cur_exchange_compares) {
      report_differences(ctx, event.payload, event.payload_size);
      CHECKPOINT(ctx);
      end_exchange(ctx);
      return;
    }
    compare_synced_files(ctx, event.payload, event.payload_size);
    CHECKPOINT(ctx);
    ctx->cur_state = ST_UPDATE;
    update_next_chunk(ctx);
  } else if (!(event.from_self && ctx->cur_state == ST_PEERLOCK)) {
    end_exchange_error(ctx, "Received unexpected LISTING_ACK message in state %s",
                       sync_state_name(ctx->cur_state));
  }
}

void on_update_req(SyncContext* ctx, const Event& event) {
  ctx->state_time = get_uptime();
  ctx->peer_sequence_id = event.header->sequence_id;
  if (ctx->cur_state == ST_PEERLOCK && !event.from_self) {
    check_header_ids(ctx, event.header->exchange_id, &event.header->sequence_id,
                     FLAG_PEER_EXCHANGE);
    CHECKPOINT(ctx);
    on_update_chunk(ctx, event.payload, event.payload_size);
    CHECKPOINT(ctx);
  } else if (!(event.from_self && (ctx->cur_state == ST_UPDATE || ctx->cur_state == ST_DONE))) {
    end_exchange_error(ctx, "Received unexpected UPDATE_REQ message in state %s",
                       sync_state_name(ctx->cur_state));
  }
}

// The peer failed to apply an update. Its reason becomes the outcome, also for the local caller.
// The change is applied on this EM, so local_ok is set whatever the peer says.
void take_peer_failure(SyncContext* ctx, const RpcResult& result) {
  ctx->cpg_result = result;
  ctx->cpg_result.local_ok = 1;
  ctx->cpg_result.reason[sizeof(result.reason) - 1] = '\0';  // untrusted bytes
  LOG(3, "%s", ctx->cpg_result.reason);
  end_exchange(ctx);
}

void on_update_ack(SyncContext* ctx, const Event& event) {
  ctx->state_time = get_uptime();
  if (ctx->cur_state == ST_UPDATE && !event.from_self) {
    check_header_ids(ctx, event.header->exchange_id, &event.header->sequence_id,
                     FLAG_CHECK_SEQUENCE);
    CHECKPOINT(ctx);
    on_update_chunk(ctx, event.payload, event.payload_size);
    CHECKPOINT(ctx);
    if (!event.header->result.success) {
      take_peer_failure(ctx, event.header->result);
    } else {
      update_next_chunk(ctx);
    }
  } else if (!(event.from_self && ctx->cur_state == ST_PEERLOCK)) {
    end_exchange_error(ctx, "Received unexpected %s message in state %s",
                       sync_command_name(event.command), sync_state_name(ctx->cur_state));
  }
}

// Requests the first exchange after a join; the end of this event or a later one starts it. Returns
// false if another request has rpc_stage.
bool mark_initial_sync(SyncContext* ctx) {
  // `cluster_sync_ctl explain` reads this format.
  LOG(6, "Initial sync operation to be initiated");
  HOLD_MUTEX(ctx->rpc_mutex);
  if (ctx->rpc_stage != RPC_IDLE) return false;
  ctx->rpc_stage = RPC_LOCAL_BUSY;
  ctx->cur_exchange_em_is_active = 1;
  return true;
}

// Makes sure that the active EM synchronises a new member. If another request or a failure is in
// the way, schedules a resync, which a successful exchange before it cancels.
void request_initial_sync(SyncContext* ctx) {
  if (!this_em_is_active()) return;
  if (ctx->cpg_result.canceled || !mark_initial_sync(ctx)) arm_resync(ctx);
}

void on_join_while_unlocked(SyncContext* ctx) {
  const bool self_joined = (ctx->cpg_membership_flags & kSelfJoined) != 0;
  const bool peer_joined = (ctx->cpg_membership_flags & kPeerJoined) != 0;
  if (self_joined && peer_joined) {
    request_initial_sync(ctx);
  } else if (peer_joined) {
    end_exchange(ctx);  // the release unlocks the new member
    request_initial_sync(ctx);
  } else if (self_joined && (ctx->cpg_membership_flags & kPeerMember) != 0) {
    ctx->cur_state = ST_PEERLOCK;  // until the peer sees the join and releases
    request_initial_sync(ctx);
  }
}

void on_cpg_joined(SyncContext* ctx) {
  ctx->state_time = get_uptime();
  switch (ctx->cur_state) {
    case ST_LOCKREQ:
      break;  // the pending lock request decides
    case ST_DONE:
      request_initial_sync(ctx);
      break;
    case ST_UNLOCKED:
      on_join_while_unlocked(ctx);
      break;
    default:
      end_exchange_error(ctx, "Unexpected CPG join notification");
      break;
  }
}

// Abandons a running exchange with the outcome recorded so far. A change that waited for the end of
// the peer's exchange is completed on this EM only, with the current rights.
void on_cpg_left(SyncContext* ctx) {
  ctx->state_time = get_uptime();
  if (!ctx->cpg_result.canceled && read_rpc_stage(ctx) == RPC_PENDING) {
    if (ctx->cur_state == ST_PEERLOCK) ctx->cur_exchange_em_is_active = this_em_is_active();
    fail_change_without_rights(ctx);
    CHECKPOINT(ctx);
  }
  end_exchange(ctx);
}

void handle_command(SyncContext* ctx, const Event& event) {
  if (event.command <= MSG_UPDATE_ACK) {
    // The name is log text: keep it unchanged.
    const CpgHeader* cpg_header = event.header;
    CHECK_NOT_NULL(cpg_header);
  }
  switch (event.command) {
    case MSG_LOCK_REQ:
      return on_lock_req(ctx, event);
    case MSG_LOCK_REL:
      return on_lock_rel(ctx);
    case MSG_LISTING_REQ:
      return on_listing_req(ctx, event);
    case MSG_LISTING_ACK:
      return on_listing_ack(ctx, event);
    case MSG_UPDATE_REQ:
      return on_update_req(ctx, event);
    case MSG_UPDATE_ACK:
      return on_update_ack(ctx, event);
    case ON_SYNC_REQ:
      return on_sync_req(ctx);
    case ON_CPG_JOINED:
      return on_cpg_joined(ctx);
    case ON_CPG_LEFT:
      return on_cpg_left(ctx);
    default:
      // Always fails. Log text: keep it unchanged.
      CHECK_ZERO(true);
  }
}

// After the end of an exchange, this daemon's or the peer's: serves waiting requests.
void serve_what_waited(SyncContext* ctx) {
  close_notes(ctx);
  reset_cpg_result(ctx);
  ctx->cur_exchange_compares = 0;
  release_kept_directory();
  serve_deferred_request(ctx);
  const uint32_t stage = read_rpc_stage(ctx);
  if (ctx->cur_state == ST_UNLOCKED && (stage == RPC_PENDING || stage == RPC_LOCAL_BUSY)) {
    on_sync_state_change(ctx, ON_SYNC_REQ, ctx->cpg_local_nodeid, nullptr, nullptr, 0);
  }
}

}  // namespace

void on_sync_state_change(SyncContext* ctx, uint32_t command, uint32_t nodeid,
                          const CpgHeader* cpg_header, const uint8_t* payload,
                          uint32_t payload_size) {
  const uint32_t state_at_entry = ctx->cur_state;
  const bool from_self = nodeid == ctx->cpg_local_nodeid;
  const char* origin = from_self ? "self" : "peer";
  // `cluster_sync_ctl explain` reads this format.
  LOG(7, "Enter state change: %-12s %s:%-16s %-16s id=%u.%u hid=%d.%d",
      sync_state_name(ctx->cur_state), origin, sync_command_name(command),
      rpc_stage_name(peek_rpc_stage(ctx)), ctx->cur_exchange_id, ctx->cur_sequence_id,
      cpg_header != nullptr ? static_cast<int>(cpg_header->exchange_id) : -1,
      cpg_header != nullptr ? static_cast<int>(cpg_header->sequence_id) : -1);
  if (state_machine_is_stuck()) {
    LOG(4, "Simulating stuck state machine: not updating state.");
    return;
  }
  handle_command(ctx, {command, from_self, cpg_header, payload, payload_size});
  if (state_at_entry != ST_UNLOCKED && ctx->cur_state == ST_UNLOCKED) serve_what_waited(ctx);
  // `cluster_sync_ctl explain` reads this format.
  LOG(7, "Exit  state change: %-12s %s:%-16s %-16s id=%u.%u", sync_state_name(ctx->cur_state),
      origin, sync_command_name(command), rpc_stage_name(peek_rpc_stage(ctx)), ctx->cur_exchange_id,
      ctx->cur_sequence_id);
}

void on_sync_rpc_update(SyncContext* ctx) {
  if (!apply_local_request(ctx)) return;
  // The event makes the request pending, unless the state machine is stuck and drops it.
  on_sync_state_change(ctx, ON_SYNC_REQ, ctx->cpg_local_nodeid, nullptr, nullptr, 0);
  if (ctx->cur_state == ST_UNLOCKED) mark_applied(ctx);
}

void serve_deferred_request(SyncContext* ctx) {
  if (!ctx->rpc_deferred || pause_before_exchange(ctx) > 0) return;
  ctx->rpc_deferred = 0;
  if (read_rpc_stage(ctx) == RPC_REQUESTING) on_sync_rpc_update(ctx);
}

const char* sync_state_name(uint32_t state) {
  static const char* const names[] = {"ST_UNLOCKED", "ST_LOCKREQ", "ST_PEERLOCK",
                                      "ST_LISTREQ",  "ST_UPDATE",  "ST_DONE"};
  return state < sizeof(names) / sizeof(names[0]) ? names[state] : "ST_???";
}

const char* rpc_stage_name(uint32_t stage) {
  static const char* const names[] = {"RPC_IDLE", "RPC_REQUESTING", "RPC_PENDING", "RPC_COMPLETE",
                                      "RPC_LOCAL_BUSY"};
  return stage < sizeof(names) / sizeof(names[0]) ? names[stage] : "RPC_???";
}
