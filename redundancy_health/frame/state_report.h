#ifndef FRAME_STATE_REPORT_H_
#define FRAME_STATE_REPORT_H_

#include "platform/mutex.h"
#include "redundancy_health/frame/relaxed.h"
#include "redundancy_health/frame/state_record.h"
#include "redundancy_health/frame/sync_context.h"

// What sync_thread lets others know of itself. It writes numbers without a lock, and texts under a
// mutex that nobody holds across a system call, so that a query never waits for it, even when it
// hangs. Times are seconds of get_uptime, 0 = never.
struct StateReport {
  Relaxed<int32_t> start_time;
  Relaxed<uint32_t> heartbeat;  // moves with every pass of the loop and every chunk
  Relaxed<uint32_t> activity;   // Activity
  Relaxed<uint32_t> exchange_state;
  Relaxed<int32_t> exchange_state_time;
  Relaxed<uint32_t> membership_flags;
  Relaxed<int32_t> consecutive_errors;
  Relaxed<int32_t> resync_countdown;
  Relaxed<int32_t> last_success_time;
  Relaxed<uint32_t> both_active;  // the last exchange showed two active EMs

  // The main thread's, which looks at the heartbeat once a second.
  Relaxed<uint32_t> heartbeat_seen;
  Relaxed<int32_t> heartbeat_time;  // when it was last seen to move

  Mutex mutex = PTHREAD_MUTEX_INITIALIZER;
  int32_t last_error_time GUARDED_BY(mutex);
  char last_error[kStateTextSize] GUARDED_BY(mutex);
  char last_cause[kStateTextSize] GUARDED_BY(mutex);
  uint32_t member_count GUARDED_BY(mutex);
  StateMember members[kStateMembers] GUARDED_BY(mutex);
};

extern StateReport g_state_report;

// Begins the report: the daemon starts now.
void start_state_report();

// The replicating thread lives, and is about to do this. sync_thread; two stores, no system call.
void beat(Activity activity);

// Takes over what the context says now. sync_thread, after every event.
void report_context(const SyncContext& ctx);

// sync_thread: the members of the group.
void report_members(const struct cpg_address* members, size_t count);

// Keeps the reason of a failure of the running exchange, unless there is an earlier one: it is the
// cause, whatever the exchange ends with. sync_thread.
void note_failure(const char* reason);

// This EM has answered with its listing in the peer's exchange. sync_thread.
void note_listing_served();

// An exchange begins, or has ended: nothing of it is known. sync_thread.
void forget_exchange();

// The outcome of an exchange of this EM with the peer, and of one of the peer's that it has
// released: there only what this EM has met itself is known. sync_thread.
void report_success();
void report_failure(const char* reason);
void report_served_exchange(const RpcResult& result);

// Looks at the heartbeat; logs once when it has stood still too long. Returns whether it moves.
// The main thread, about once a second.
bool watch_heartbeat();

// The state now. Any thread; reads no file but the role and the number in /var/run/em, in memory.
void read_state(StateRecord* record);

#endif  // FRAME_STATE_REPORT_H_
