#include "redundancy_health/frame/statistics.h"

Statistics stats;

void clear_statistics() {
  stats.n_syncs_from_self = 0;
  stats.n_syncs_from_peer = 0;
  stats.n_chunk_writes_from_peer = 0;
  stats.n_digest_files_created = 0;
  stats.n_atomic_updates_from_self = 0;
  stats.n_filesys_files_scanned = 0;
  stats.n_digest_files_scanned = 0;
  stats.n_filesys_chunks_scanned = 0;
  stats.n_digest_chunks_scanned = 0;
  stats.n_filesys_bytes_scanned = 0;
  stats.n_digest_bytes_elided = 0;
}
