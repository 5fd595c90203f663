#ifndef FRAME_STATISTICS_H_
#define FRAME_STATISTICS_H_

#include <stdint.h>

#include "redundancy_health/frame/relaxed.h"

// Counters since the start or the last reset. sync_thread increments them, diagnostic commands read
// and clear them. Deliberately without a lock.
struct Statistics {
  Relaxed<uint32_t> n_syncs_from_self;
  Relaxed<uint32_t> n_syncs_from_peer;
  Relaxed<uint32_t> n_chunk_writes_from_peer;
  Relaxed<uint32_t> n_digest_files_created;
  Relaxed<uint32_t> n_atomic_updates_from_self;
  Relaxed<uint32_t> n_filesys_files_scanned;
  Relaxed<uint32_t> n_digest_files_scanned;
  Relaxed<uint32_t> n_filesys_chunks_scanned;
  Relaxed<uint32_t> n_digest_chunks_scanned;
  Relaxed<int64_t> n_filesys_bytes_scanned;
  Relaxed<int64_t> n_digest_bytes_elided;
};

extern Statistics stats;

// Sets every counter to zero, one after the other. Any thread.
void clear_statistics();

#endif  // FRAME_STATISTICS_H_
