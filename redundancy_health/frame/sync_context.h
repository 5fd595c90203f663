#ifndef FRAME_SYNC_CONTEXT_H_
#define FRAME_SYNC_CONTEXT_H_

#include <corosync/cpg.h>
#include <pthread.h>
#include <stdint.h>

#include "platform/mutex.h"
#include "platform/storage.h"
#include "redundancy_health/frame/relaxed.h"

struct FileEntry;

// Files are listed, compared and sent in chunks of this many bytes.
constexpr uint32_t kChunkSize = 65536;

// cur_state: where the exchange state machine is.
enum SyncState : uint32_t {
  ST_UNLOCKED = 0,  // no exchange runs
  ST_LOCKREQ = 1,   // own lock request sent, not yet delivered back
  ST_PEERLOCK = 2,  // the peer holds the lock, this daemon serves
  ST_LISTREQ = 3,   // lock held, the peer's listing asked for
  ST_UPDATE = 4,    // updates go out one by one
  ST_DONE = 5,      // release sent, not yet delivered back
};

// rpc_stage: hand-off of a local request between its caller's thread and sync_thread.
enum RpcStage : uint32_t {
  RPC_IDLE = 0,
  RPC_REQUESTING = 1,  // a request waits to be served
  RPC_PENDING = 2,     // its exchange has been started
  RPC_COMPLETE = 3,    // its result waits for the caller
  RPC_LOCAL_BUSY = 4,  // the daemon itself wants an exchange
};

// cpg_membership_flags: what the last configuration change of the group said.
constexpr uint32_t kSelfMember = 0x01;
constexpr uint32_t kPeerMember = 0x02;
constexpr uint32_t kSelfJoined = 0x04;
constexpr uint32_t kPeerJoined = 0x08;
constexpr uint32_t kSelfLeft = 0x10;
constexpr uint32_t kPeerLeft = 0x20;

// What was noted for the end of the exchange (transfer/exchange_notes.h).
struct ExchangeNotes {
  uint32_t n_deleted;     // files deleted here because their owner no longer has them
  char* first_deleted;    // path of the first; owned, null for none
  uint8_t shared_change;  // the peer has changed a shared tree
};

// All state of the daemon. Once sync_thread runs, every field is its own, but for rpc_fd (written
// before the threads start) and what rpc_mutex guards.
struct SyncContext {
  int rpc_fd;  // eventfd: a caller's thread wakes sync_thread for a request
  uint32_t cpg_local_nodeid;
  cpg_handle_t cpg_handle;
  uint8_t cpg_initialized;  // cpg_handle is valid
  int32_t state_time;       // uptime in seconds of the last progress, -1 unknown
  uint32_t cpg_membership_flags;
  uint32_t cur_exchange_id;  // the exchange this daemon started last
  uint32_t cur_sequence_id;
  uint32_t peer_exchange_id;  // the peer's exchange being served
  uint32_t peer_sequence_id;
  uint8_t cur_exchange_em_is_active;  // the exchange runs with the rights of the active EM
  uint8_t cur_exchange_compares;      // it only compares: no change, no word on faults
  uint8_t rpc_deferred;               // a request was announced while an exchange ran
  uint32_t cur_state;                 // SyncState
  RpcResult cpg_result;               // outcome of the current exchange so far
  int32_t resync_countdown;           // loop passes to the next resync, -1 = none
  int32_t consecutive_errors;         // failed exchanges in a row, on the active EM
  int32_t exchange_pause;             // ms, after the last failed exchange; 0 after a success
  int64_t no_exchange_before;         // uptime in ms when that pause is over
  FileEntry* update_queue;            // entries still to send; owned
  ExchangeNotes notes;
  uint8_t change_overtaken;      // the peer has changed a shared tree since a local change was made
  Relaxed<uint8_t> both_active;  // the peer acts as the active EM while this one is active
  const char* guarded_root;      // whose deletions the exchange leaves out, or null
  uint32_t guarded_deletions;    // files that it would delete there
  uint32_t guarded_files;        // of so many
  alignas(4096) uint8_t data_chunk_buf[kChunkSize];

  Mutex rpc_mutex;
  pthread_cond_t rpc_cond;  // a change of rpc_stage
  // RpcStage.
  Relaxed<uint32_t> rpc_stage GUARDED_BY(rpc_mutex);
  // The caller's own bytes, valid while it waits.
  const uint8_t* rpc_msg GUARDED_BY(rpc_mutex);
  uint32_t current_rpc_size GUARDED_BY(rpc_mutex);
  // The request is for a comparison instead of a change.
  uint8_t rpc_compare GUARDED_BY(rpc_mutex);
  // Descriptor of what the comparison found, or -1; the caller's to close.
  int rpc_report GUARDED_BY(rpc_mutex);
  // Callers inside.
  Relaxed<int32_t> waiting_rpc_count GUARDED_BY(rpc_mutex);
  RpcResult rpc_result GUARDED_BY(rpc_mutex);
};

extern SyncContext g_context;

// Puts every field to its start value. Before any other thread exists.
void init_context(SyncContext* ctx);

// Makes cpg_result a success again: a new exchange, or the end of one.
void reset_cpg_result(SyncContext* ctx);

// Reads rpc_stage under its mutex.
uint32_t read_rpc_stage(SyncContext* ctx);

// A value for a log line, which needs no mutex.
uint32_t peek_rpc_stage(const SyncContext* ctx) READS_WITHOUT_MUTEX;
int32_t peek_waiting_rpc_count(const SyncContext* ctx) READS_WITHOUT_MUTEX;

// Reads the bytes of the request, null and 0 for none, and returns its stage. They stay as long as
// the caller waits, so as long as an exchange runs for it.
uint32_t read_rpc_request(SyncContext* ctx, const uint8_t** message, uint32_t* size);

// True when the request asks for a comparison of the trees.
bool request_is_comparison(SyncContext* ctx);

#endif  // FRAME_SYNC_CONTEXT_H_
