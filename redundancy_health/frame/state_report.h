#ifndef FRAME_STATE_REPORT_H_
#define FRAME_STATE_REPORT_H_

#include "platform/mutex.h"
#include "redundancy_health/frame/relaxed.h"
#include "redundancy_health/frame/state_record.h"
#include "redundancy_health/frame/sync_context.h"

// What sync_thread reports about itself. It writes numbers without a lock and texts under a mutex
// that no thread holds across a system call. So a query never waits for sync_thread, even if that
// hangs. Times are seconds of get_uptime, 0 = never.
struct StateReport {
  Relaxed<int32_t> start_time;
  Relaxed<uint32_t> heartbeat;  // changes with every pass of the loop and every chunk
  Relaxed<uint32_t> activity;   // Activity
  Relaxed<uint32_t> exchange_state;
  Relaxed<int32_t> exchange_state_time;
  Relaxed<uint32_t> membership_flags;
  Relaxed<int32_t> consecutive_errors;
  Relaxed<int32_t> resync_countdown;
  Relaxed<int32_t> last_success_time;
  Relaxed<uint32_t> both_active;  // the last exchange showed two active EMs

  // Written by the main thread, which checks the heartbeat about every 10 s.
  Relaxed<uint32_t> heartbeat_seen;
  Relaxed<int32_t> heartbeat_time;  // when it was last seen to change

  Mutex mutex = PTHREAD_MUTEX_INITIALIZER;
  int32_t last_error_time GUARDED_BY(mutex);
  char last_error[kStateTextSize] GUARDED_BY(mutex);
  char last_cause[kStateTextSize] GUARDED_BY(mutex);
  uint32_t member_count GUARDED_BY(mutex);
  StateMember members[kStateMembers] GUARDED_BY(mutex);
};

extern StateReport g_state_report;

// Starts the report. Call it once, at the start of the daemon.
void start_state_report();

// Counts the heartbeat and sets the activity that begins now. Makes no system call. sync_thread.
void beat(Activity activity);

// Copies the current state from the context. sync_thread, after every event.
void report_context(const SyncContext& ctx);

// Stores the members of the group. sync_thread.
void report_members(const struct cpg_address* members, size_t count);

// Stores the reason of the first failure in the running exchange: it is the cause, whatever error
// ends the exchange. sync_thread.
void note_failure(const char* reason);

// Notes that this EM has answered with its listing in the peer's exchange. sync_thread.
void note_listing_served();

// Clears these notes when an exchange begins or has ended. sync_thread.
void forget_exchange();

// Report the outcome of an exchange that this EM started, or of a served one that the peer has
// released. For a served one only failures on this EM are known. sync_thread.
void report_success();
void report_failure(const char* reason);
void report_served_exchange(const RpcResult& result);

// Checks the heartbeat. Logs once when it has not changed for 60 s. Returns whether it changes.
// Main thread, about every 10 s.
bool watch_heartbeat();

// Fills in the current state. Any thread. Reads no files but the role and the number in
// /var/run/em, which is in memory.
void read_state(StateRecord* record);

#endif  // FRAME_STATE_REPORT_H_
