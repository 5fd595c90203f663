#include "redundancy_health/frame/state_report.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "platform/em.h"
#include "redundancy_health/frame/checked_lock.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/statistics.h"
#include "redundancy_health/frame/version.h"

StateReport g_state_report;

namespace {

constexpr int32_t kHangTime = 60;  // seconds without a change of the heartbeat

// Notes on the running exchange; sync_thread only.
char g_first_failure[kStateTextSize];
bool g_listing_served = false;

void copy_text(char (&to)[kStateTextSize], const char* from) {
  snprintf(to, sizeof to, "%s", from);
}

int32_t age_of(int32_t time, int32_t now) {
  return time == 0 ? -1 : std::max(now - time, 0);
}

void read_counters(StateCounters* counters) {
  counters->syncs_from_self = stats.n_syncs_from_self;
  counters->syncs_from_peer = stats.n_syncs_from_peer;
  counters->chunk_writes_from_peer = stats.n_chunk_writes_from_peer;
  counters->digest_files_created = stats.n_digest_files_created;
  counters->atomic_updates_from_self = stats.n_atomic_updates_from_self;
  counters->digest_files_scanned = stats.n_digest_files_scanned;
  counters->digest_chunks_scanned = stats.n_digest_chunks_scanned;
  counters->digest_bytes_elided = static_cast<uint64_t>(stats.n_digest_bytes_elided);
  counters->filesys_files_scanned = stats.n_filesys_files_scanned;
  counters->filesys_chunks_scanned = stats.n_filesys_chunks_scanned;
  counters->filesys_bytes_scanned = static_cast<uint64_t>(stats.n_filesys_bytes_scanned);
}

void read_texts(StateRecord* record, int32_t now) {
  HOLD_MUTEX(g_state_report.mutex);
  record->last_error_age = age_of(g_state_report.last_error_time, now);
  memcpy(record->last_error, g_state_report.last_error, sizeof record->last_error);
  memcpy(record->last_cause, g_state_report.last_cause, sizeof record->last_cause);
  record->member_count = g_state_report.member_count;
  memcpy(record->members, g_state_report.members, sizeof record->members);
}

// A heartbeat that changed since the main thread's last check has age 0.
int32_t heartbeat_age(int32_t now) {
  const StateReport& report = g_state_report;
  const bool moved = report.heartbeat != report.heartbeat_seen;
  return moved ? 0 : std::max(age_of(report.heartbeat_time, now), 0);
}

}  // namespace

void start_state_report() {
  const int32_t now = get_uptime();
  g_state_report.start_time = now;
  g_state_report.heartbeat_time = now;
  g_state_report.exchange_state_time = now;
  g_state_report.resync_countdown = -1;
  g_state_report.last_success_time = 0;
  HOLD_MUTEX(g_state_report.mutex);
  g_state_report.last_error_time = 0;
}

void beat(Activity activity) {
  g_state_report.activity = activity;
  g_state_report.heartbeat += 1;
}

void report_context(const SyncContext& ctx) {
  StateReport& report = g_state_report;
  if (report.exchange_state != ctx.cur_state) report.exchange_state_time = get_uptime();
  report.exchange_state = ctx.cur_state;
  report.membership_flags = ctx.cpg_membership_flags;
  report.consecutive_errors = ctx.consecutive_errors;
  report.resync_countdown = ctx.resync_countdown;
  report.both_active = static_cast<uint8_t>(ctx.both_active);
}

void report_members(const struct cpg_address* members, size_t count) {
  HOLD_MUTEX(g_state_report.mutex);
  g_state_report.member_count = static_cast<uint32_t>(count);
  for (size_t i = 0; i < std::min(count, kStateMembers); ++i)
    g_state_report.members[i] = {members[i].nodeid, members[i].pid};
}

void note_failure(const char* reason) {
  if (*g_first_failure == '\0') copy_text(g_first_failure, reason);
}

void note_listing_served() {
  g_listing_served = true;
}

void forget_exchange() {
  *g_first_failure = '\0';
  g_listing_served = false;
}

void report_success() {
  g_state_report.last_success_time = get_uptime();
}

void report_failure(const char* reason) {
  const int32_t now = get_uptime();
  note_failure(reason);
  HOLD_MUTEX(g_state_report.mutex);
  g_state_report.last_error_time = now;
  copy_text(g_state_report.last_error, reason);
  copy_text(g_state_report.last_cause, g_first_failure);
}

void report_served_exchange(const RpcResult& result) {
  if (!result.success) note_failure(result.reason);
  if (*g_first_failure != '\0') {
    report_failure(result.success ? g_first_failure : result.reason);
  } else if (g_listing_served) {
    report_success();
  }
}

bool watch_heartbeat() {
  static bool told = false;
  StateReport& report = g_state_report;
  const int32_t now = get_uptime();
  const uint32_t heartbeat = report.heartbeat;
  if (heartbeat != report.heartbeat_seen) {
    report.heartbeat_seen = heartbeat;
    report.heartbeat_time = now;
  }
  const int32_t age = now - report.heartbeat_time;
  if (age < kHangTime) {
    told = false;
    return true;
  }
  if (!told) LOG(3, "Replication hangs for %d s", age);
  told = true;
  return false;
}

void read_state(StateRecord* record) {
  const StateReport& report = g_state_report;
  const int32_t now = get_uptime();
  memset(record, 0, sizeof *record);
  record->size = sizeof *record;
  record->number_source = read_em_number(&record->em_number);
  record->active = this_em_is_active();
  const uint32_t flags = report.membership_flags;
  record->joined = (flags & kSelfMember) != 0;
  record->peer_present = (flags & kPeerMember) != 0;
  record->exchange_state = report.exchange_state;
  record->exchange_state_age = age_of(report.exchange_state_time, now);
  record->activity = report.activity;
  record->heartbeat_age = heartbeat_age(now);
  record->hung = record->heartbeat_age >= kHangTime;
  record->uptime = age_of(report.start_time, now);
  record->last_success_age = age_of(report.last_success_time, now);
  record->consecutive_errors = report.consecutive_errors;
  record->resync_in = report.resync_countdown;
  record->waiting = peek_waiting_rpc_count(&g_context);
  record->fault = record->consecutive_errors > 1;
  record->both_active = report.both_active;
  record->recorder_paused = g_flight_recorder.paused;
  record->rpc_stage = peek_rpc_stage(&g_context);
  read_counters(&record->counters);
  snprintf(record->version, sizeof record->version, "%s", kVersion);
  read_texts(record, now);
}
