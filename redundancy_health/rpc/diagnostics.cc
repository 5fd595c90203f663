#include "redundancy_health/rpc/diagnostics.h"

#include <string.h>

#include <string>

#include "redundancy_health/frame/checked_lock.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/exit_flag.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/statistics.h"
#include "redundancy_health/rpc/rpc_service.h"

namespace {

// The low 32 bits, even where long has only 32.
int32_t decimal(const char* text) {
  return static_cast<int32_t>(strtoll(text, nullptr, 10));
}

void set_fault_path(char (DiagParams::*fault_path)[kFaultPathSize], const char* path) {
  HOLD_MUTEX(g_diag_params.mutex);
  char(&field)[kFaultPathSize] = g_diag_params.*fault_path;
  memset(field, 0, sizeof(field));
  memcpy(field, path, strnlen(path, sizeof(field) - 1));
}

void set_cpg_send_fail(uint8_t fail) {
  HOLD_MUTEX(g_diag_params.mutex);
  g_diag_params.cpg_send_fail = fail;
}

void set_statemachine_stuck(uint8_t stuck) {
  HOLD_MUTEX(g_diag_params.mutex);
  g_diag_params.statemachine_stuck = stuck;
}

void set_max_log_size(int32_t max_log_size) {
  HOLD_MUTEX(g_diag_params.mutex);
  g_diag_params.max_log_size = max_log_size;
}

void clear_faults() {
  HOLD_MUTEX(g_diag_params.mutex);
  g_diag_params.cpg_send_fail = 0;
  g_diag_params.statemachine_stuck = 0;
  g_diag_params.fail_scan_path[0] = '\0';
  g_diag_params.fail_read_path[0] = '\0';
  g_diag_params.fail_write_path[0] = '\0';
  g_diag_params.fail_rename_path[0] = '\0';
}

void allow_deletions() {
  HOLD_MUTEX(g_diag_params.mutex);
  g_diag_params.allow_deletions = 1;
}

void run_exit(const char*) {
  LOG(4, "Received exit diag command. Stopping daemon.");
  set_exit_daemon();
}

void run_sync(const char*) {
  // `cluster_sync_ctl explain` reads this format.
  LOG(4, "Received sync diag command. Running extra sync operation now.");
  static const uint8_t message[2] = {0, 0};
  RpcResult result;
  on_rpc_update(&result, message, sizeof(message));
}

void run_cpg_send_fail(const char*) {
  set_cpg_send_fail(1);
  LOG(4, "Received cpg-send-fail diag command. Forcing CPG send operations to fail.");
}

void run_cpg_send_nofail(const char*) {
  set_cpg_send_fail(0);
  LOG(4, "Received cpg-send-nofail diag command. Resuming CPG send normal operations.");
}

void run_statemachine_stuck(const char*) {
  set_statemachine_stuck(1);
  LOG(4, "Received statemachine-stuck diag command. State machine frozen.");
}

void run_statemachine_notstuck(const char*) {
  set_statemachine_stuck(0);
  // Log text: keep it unchanged, although the command is statemachine-notstuck.
  LOG(4, "Received statemachine-stuck diag command. State machine back to normal.");
}

void run_log_size(const char* argument) {
  const int32_t max_log_size = decimal(argument);
  set_max_log_size(max_log_size);
  // Log text: keep it unchanged, without the blank.
  LOG(4, "Received log-size diag command. Setting max log size to'%d'", max_log_size);
}

void run_fail_scan(const char* argument) {
  set_fault_path(&DiagParams::fail_scan_path, argument);
  LOG(4, "Received fail-scan diag command. Setting fail scan path to '%s'", argument);
}

void run_fail_read(const char* argument) {
  set_fault_path(&DiagParams::fail_read_path, argument);
  LOG(4, "Received fail-read diag command. Setting fail read path to '%s'", argument);
}

void run_fail_write(const char* argument) {
  set_fault_path(&DiagParams::fail_write_path, argument);
  LOG(4, "Received fail-write diag command. Setting fail write path to '%s'", argument);
}

void run_fail_rename(const char* argument) {
  set_fault_path(&DiagParams::fail_rename_path, argument);
  LOG(4, "Received fail-rename diag command. Setting fail rename path to '%s'", argument);
}

void run_fail_none(const char*) {
  clear_faults();
  LOG(4, "Received fail-none diag command. Disabling all error injections");
}

void run_allow_deletions(const char*) {
  allow_deletions();
  LOG(4,
      "Received allow-deletions diag command. The next exchange may delete any number of files.");
}

void run_flight_rec(const char* argument) {
  HOLD_MUTEX(g_flight_recorder.mutex);
  if (argument == nullptr) {
    // only logs the state
  } else if (strcmp(argument, "dump") == 0) {
    dump_flight_recorder();
  } else if (strcmp(argument, "pause") == 0) {
    g_flight_recorder.paused = 1;
  } else if (strcmp(argument, "resume") == 0) {
    g_flight_recorder.paused = 0;
  } else {
    g_flight_recorder.max_entries = static_cast<uint32_t>(decimal(argument));
  }
  LOG_PLATFORM_ONLY(4, "Received flight-rec diag command. Paused=%d Max size-%u",
                    static_cast<int>(g_flight_recorder.paused), g_flight_recorder.max_entries);
}

void reset_statistics() {
  // Log text: keep it unchanged, misspelt.
  LOG(4, "Received stats reset diag command. Reseting stats counters.");
  clear_statistics();
}

void dump_statistics() {
  const uint32_t syncs_from_self = stats.n_syncs_from_self;
  const uint32_t syncs_from_peer = stats.n_syncs_from_peer;
  const uint32_t chunk_writes_from_peer = stats.n_chunk_writes_from_peer;
  const uint32_t digest_files_created = stats.n_digest_files_created;
  const uint32_t atomic_updates_from_self = stats.n_atomic_updates_from_self;
  const uint32_t digest_files_scanned = stats.n_digest_files_scanned;
  const uint32_t digest_chunks_scanned = stats.n_digest_chunks_scanned;
  const long long digest_bytes_elided = stats.n_digest_bytes_elided;
  const uint32_t filesys_files_scanned = stats.n_filesys_files_scanned;
  const uint32_t filesys_chunks_scanned = stats.n_filesys_chunks_scanned;
  const long long filesys_bytes_scanned = stats.n_filesys_bytes_scanned;
  LOG(4, "Received stats dump diag command. Current count values follow:");
  LOG(4, "Syncs from self:           %14u", syncs_from_self);
  LOG(4, "Syncs from peer:           %14u", syncs_from_peer);
  LOG(4, "Chunk writes from peer:    %14u", chunk_writes_from_peer);
  LOG(4, "Digest files created:      %14u", digest_files_created);
  LOG(4, "Atomic updates from self:  %14u", atomic_updates_from_self);
  LOG(4, "Digest files scanned:      %14u", digest_files_scanned);
  LOG(4, "Digest chunks scanned:     %14u", digest_chunks_scanned);
  LOG(4, "Digest bytes elided:       %14lld", digest_bytes_elided);
  LOG(4, "File sys files scanned:    %14u", filesys_files_scanned);
  LOG(4, "File sys chunks scanned:   %14u", filesys_chunks_scanned);
  LOG(4, "File sys bytes scanned:    %14lld", filesys_bytes_scanned);
}

void run_stats(const char* argument) {
  if (argument == nullptr) return;
  if (strcmp(argument, "reset") == 0) {
    reset_statistics();
  } else if (strcmp(argument, "dump") == 0) {
    dump_statistics();
  }
}

struct DiagnosticCommand {
  const char* word;
  bool needs_argument;
  void (*run)(const char* argument);  // null if there is no argument
};

constexpr DiagnosticCommand kCommands[] = {
    {"exit", false, run_exit},
    {"sync", false, run_sync},
    {"cpg-send-fail", false, run_cpg_send_fail},
    {"cpg-send-nofail", false, run_cpg_send_nofail},
    {"statemachine-stuck", false, run_statemachine_stuck},
    {"statemachine-notstuck", false, run_statemachine_notstuck},
    {"log-size", true, run_log_size},
    {"fail-scan", true, run_fail_scan},
    {"fail-read", true, run_fail_read},
    {"fail-write", true, run_fail_write},
    {"fail-rename", true, run_fail_rename},
    {"fail-none", false, run_fail_none},
    {"allow-deletions", false, run_allow_deletions},
    {"flight-rec", false, run_flight_rec},
    {"stats", false, run_stats},
};

}  // namespace

uint32_t run_diagnostic(const uint8_t* message, uint32_t size) {
  const auto* bytes = reinterpret_cast<const char*>(message);
  std::string word(bytes, strnlen(bytes, size));
  std::string argument;
  const size_t equals = word.find('=');
  const bool has_argument = equals != std::string::npos;
  if (has_argument) {
    argument = word.substr(equals + 1);
    word.resize(equals);
  }
  for (const DiagnosticCommand& command : kCommands) {
    if (word != command.word || (command.needs_argument && !has_argument)) continue;
    command.run(has_argument ? argument.c_str() : nullptr);
    return kHandled;
  }
  LOG(3, "received an invalid diag message");
  return kInvalidMessage;
}
