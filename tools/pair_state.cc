#include "tools/pair_state.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include "platform/em.h"
#include "redundancy_health/frame/state_summary.h"
#include "tools/output.h"

namespace {

constexpr int kProbeMs = 5000;

static_assert(sizeof(cluster_sync_state) == sizeof(StateRecord));
static_assert(offsetof(cluster_sync_state, counters) == offsetof(StateRecord, counters));
static_assert(offsetof(cluster_sync_state, last_cause) == offsetof(StateRecord, last_cause));

pid_t listener_pid(const cluster_sync_connection* connection) {
  ucred listener = {};
  socklen_t size = sizeof listener;
  const int fd = cluster_sync_fd(connection);
  return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &listener, &size) == 0 ? listener.pid : 0;
}

// Returns 0 or an error number of the client library.
int ask_daemon(const Options& options, PairState* state) {
  const int limit = std::min(options.timeout_ms, kProbeMs);
  cluster_sync_connection* connection = nullptr;
  cluster_sync_state answer = {};
  int error = cluster_sync_open(options.socket.c_str(), limit, &connection);
  if (error == 0) error = cluster_sync_send_state(connection, limit);
  if (error == 0) error = cluster_sync_receive_state(connection, limit, &answer, sizeof answer);
  if (error == 0 && answer.size < sizeof answer) error = EPROTO;
  if (error == 0) state->daemon_pid = listener_pid(connection);
  cluster_sync_close(connection);
  memcpy(&state->record, &answer, sizeof answer);
  StateRecord& record = state->record;
  for (char* text : {record.last_error, record.last_cause})
    text[kStateTextSize - 1] = '\0';
  record.version[sizeof record.version - 1] = '\0';
  return error == EAGAIN ? ETIMEDOUT : error;
}

std::string why_no_answer(const Options& options, int error) {
  if (error == ECANCELED) return "does not know this request; it is older than this program";
  if (error == EACCES || error == EPERM) return "only root may ask it";
  return client_error_text(options, error);
}

}  // namespace

PairState read_pair_state(const Options& options) {
  PairState state;
  const int error = ask_daemon(options, &state);
  if (error != 0) state.error = why_no_answer(options, error);
  uint32_t number = 0;
  const NumberSource source = read_em_number(&number);
  state.em = number;
  state.number_valid = source != kNumberInvalid;
  state.active = this_em_is_active();
  state.fault = read_fault_state();
  return state;
}

ExitStatus judge(const PairState& state) {
  if (!state.error.empty() || !state.fault.error.empty()) return kNoAnswer;
  const bool fault = state.active && state.fault.recorded && !state.fault.healthy;
  return state_is_well(state.record) && state.number_valid && !fault ? kDone : kFailed;
}

const char* exchange_state_name(uint32_t state) {
  static const char* const names[] = {"idle",      "lock asked for", "serving the other EM",
                                      "comparing", "updating",       "releasing"};
  return state < sizeof names / sizeof names[0] ? names[state] : "unknown";
}

std::vector<std::pair<const char*, uint64_t>> counters_of(const StateRecord& record) {
  const StateCounters& counters = record.counters;
  return {{"syncs_from_self", counters.syncs_from_self},
          {"syncs_from_peer", counters.syncs_from_peer},
          {"chunk_writes_from_peer", counters.chunk_writes_from_peer},
          {"digest_files_created", counters.digest_files_created},
          {"atomic_updates_from_self", counters.atomic_updates_from_self},
          {"digest_files_scanned", counters.digest_files_scanned},
          {"digest_chunks_scanned", counters.digest_chunks_scanned},
          {"digest_bytes_elided", counters.digest_bytes_elided},
          {"filesys_files_scanned", counters.filesys_files_scanned},
          {"filesys_chunks_scanned", counters.filesys_chunks_scanned},
          {"filesys_bytes_scanned", counters.filesys_bytes_scanned}};
}
