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

// cur_state: the state of the exchange.
enum SyncState : uint32_t {
  ST_UNLOCKED = 0,  // no exchange runs
  ST_LOCKREQ = 1,   // own lock request sent, not delivered yet
  ST_PEERLOCK = 2,  // the peer holds the lock and is served
  ST_LISTREQ = 3,   // lock held, waiting for the peer's listing
  ST_UPDATE = 4,    // sending updates one by one
  ST_DONE = 5,      // release sent, not delivered yet
};

// rpc_stage: how far a local request is between its caller's thread and sync_thread.
enum RpcStage : uint32_t {
  RPC_IDLE = 0,
  RPC_REQUESTING = 1,  // waits to be served
  RPC_PENDING = 2,     // its exchange has started
  RPC_COMPLETE = 3,    // its result waits for the caller
  RPC_LOCAL_BUSY = 4,  // the daemon itself wants an exchange
};

// cpg_membership_flags, from the last configuration change of the group.
constexpr uint32_t kSelfMember = 0x01;
constexpr uint32_t kPeerMember = 0x02;
constexpr uint32_t kSelfJoined = 0x04;
constexpr uint32_t kPeerJoined = 0x08;
constexpr uint32_t kSelfLeft = 0x10;
constexpr uint32_t kPeerLeft = 0x20;

// Notes for the end of the exchange (transfer/exchange_notes.h).
struct ExchangeNotes {
  uint32_t n_deleted;     // deleted here because their owner no longer has them
  char* first_deleted;    // path of the first; owned, null for none
  uint8_t shared_change;  // the peer has changed a shared tree
};

// All state of the daemon. Once sync_thread runs, it owns every field, except rpc_fd (written
// before the threads start) and the fields that rpc_mutex guards.
struct SyncContext {
  int rpc_fd;  // eventfd with which a caller's thread wakes sync_thread
  uint32_t cpg_local_nodeid;
  cpg_handle_t cpg_handle;
  uint8_t cpg_initialized;  // cpg_handle is valid
  int32_t state_time;       // uptime in seconds of the last progress, -1 = unknown
  uint32_t cpg_membership_flags;
  uint32_t cur_exchange_id;  // the exchange that this daemon started last
  uint32_t cur_sequence_id;
  uint32_t peer_exchange_id;  // the peer's exchange that is being served
  uint32_t peer_sequence_id;
  uint8_t cur_exchange_em_is_active;  // the exchange has the rights of the active EM
  uint8_t cur_exchange_compares;  // only compares: changes nothing and does not count for faults
  uint8_t rpc_deferred;           // a request arrived during an exchange or a pause
  uint32_t cur_state;             // SyncState
  RpcResult cpg_result;           // outcome of the current exchange so far
  int32_t resync_countdown;       // loop passes to the next resync, -1 = none
  int32_t consecutive_errors;     // failed exchanges in a row, on the active EM
  int32_t exchange_pause;         // ms, after the last failed exchange; 0 after a success
  int64_t no_exchange_before;     // uptime in ms at which the pause ends
  FileEntry* update_queue;        // entries still to send; owned
  ExchangeNotes notes;
  uint8_t change_overtaken;  // the peer changed a shared tree after a waiting local change was made
  Relaxed<uint8_t> both_active;  // the peer acts as the active EM while this EM is active
  const char* guarded_root;      // tree in which the exchange makes no deletions, or null
  uint32_t guarded_deletions;    // deletions that were prevented there
  uint32_t guarded_files;        // files of that tree
  alignas(4096) uint8_t data_chunk_buf[kChunkSize];

  Mutex rpc_mutex;
  pthread_cond_t rpc_cond;  // signals a change of rpc_stage
  // RpcStage.
  Relaxed<uint32_t> rpc_stage GUARDED_BY(rpc_mutex);
  // Owned by the caller, valid while it waits.
  const uint8_t* rpc_msg GUARDED_BY(rpc_mutex);
  uint32_t current_rpc_size GUARDED_BY(rpc_mutex);
  // The request asks for a comparison, not a change.
  uint8_t rpc_compare GUARDED_BY(rpc_mutex);
  // Descriptor of the differences, or -1; the caller closes it.
  int rpc_report GUARDED_BY(rpc_mutex);
  // Callers with a request.
  Relaxed<int32_t> waiting_rpc_count GUARDED_BY(rpc_mutex);
  RpcResult rpc_result GUARDED_BY(rpc_mutex);
};

extern SyncContext g_context;

// Sets every field to its initial value. Call it before any other thread exists.
void init_context(SyncContext* ctx);

// Sets cpg_result to success, at the begin and the end of an exchange.
void reset_cpg_result(SyncContext* ctx);

// Reads rpc_stage under its mutex.
uint32_t read_rpc_stage(SyncContext* ctx);

// Without the mutex, for log lines and state queries.
uint32_t peek_rpc_stage(const SyncContext* ctx) READS_WITHOUT_MUTEX;
int32_t peek_waiting_rpc_count(const SyncContext* ctx) READS_WITHOUT_MUTEX;

// Reads the bytes of the request (null and 0 for none) and returns its stage. The bytes are valid
// while the caller waits, so also during the exchange that serves it.
uint32_t read_rpc_request(SyncContext* ctx, const uint8_t** message, uint32_t* size);

// True when the request asks for a comparison of the trees.
bool request_is_comparison(SyncContext* ctx);

#endif  // FRAME_SYNC_CONTEXT_H_
