#ifndef FRAME_STATE_RECORD_H_
#define FRAME_STATE_RECORD_H_

#include <stddef.h>
#include <stdint.h>

// The answer to a state query on the command socket, little-endian. It begins with its own size.
// Later versions add fields at the end; a reader uses the fields that it knows.

constexpr size_t kStateMembers = 8;
constexpr size_t kStateTextSize = 116;

// What sync_thread is doing, and where it hangs if it does.
enum Activity : uint32_t {
  kAtRest = 0,  // waits for messages and requests
  kListing = 1,
  kHashing = 2,
  kComparing = 3,
  kWriting = 4,
  kSyncing = 5,  // waits for the disk
  kReading = 6,  // reads data for an update
};

struct StateMember {
  uint32_t node;
  uint32_t pid;
};

// In wire order; see Statistics for the meaning.
struct StateCounters {
  uint64_t syncs_from_self;
  uint64_t syncs_from_peer;
  uint64_t chunk_writes_from_peer;
  uint64_t digest_files_created;
  uint64_t atomic_updates_from_self;
  uint64_t digest_files_scanned;
  uint64_t digest_chunks_scanned;
  uint64_t digest_bytes_elided;
  uint64_t filesys_files_scanned;
  uint64_t filesys_chunks_scanned;
  uint64_t filesys_bytes_scanned;
};

// Ages and times are in seconds; -1 if something never happened or is not planned.
struct StateRecord {
  uint32_t size;  // of the whole record
  uint32_t em_number;
  uint32_t number_source;   // NumberSource (platform/em.h)
  uint32_t active;          // this EM has the active role
  uint32_t joined;          // the daemon is in the group
  uint32_t peer_present;    // another daemon is in the group, too
  uint32_t exchange_state;  // SyncState
  int32_t exchange_state_age;
  uint32_t activity;  // Activity
  int32_t heartbeat_age;
  uint32_t hung;
  int32_t uptime;              // of the daemon
  int32_t last_success_age;    // of an exchange with the peer
  int32_t last_error_age;      // of a failed exchange
  int32_t consecutive_errors;  // counted on the active EM
  int32_t resync_in;
  int32_t waiting;  // callers
  uint32_t fault;   // the data replication fault is reported
  uint32_t both_active;
  uint32_t recorder_paused;
  uint32_t rpc_stage;     // RpcStage
  uint32_t member_count;  // may exceed kStateMembers
  StateMember members[kStateMembers];
  StateCounters counters;
  char version[24];
  char last_error[kStateTextSize];  // the reason that callers got
  char last_cause[kStateTextSize];  // the first failure that this EM met in that exchange
};

static_assert(offsetof(StateRecord, uptime) == 44);
static_assert(offsetof(StateRecord, members) == 88);
static_assert(offsetof(StateRecord, counters) == 152);
static_assert(offsetof(StateRecord, version) == 240);
static_assert(offsetof(StateRecord, last_error) == 264);
static_assert(sizeof(StateRecord) == 496);

#endif  // FRAME_STATE_RECORD_H_
