#ifndef EXCHANGE_COMPARISON_H_
#define EXCHANGE_COMPARISON_H_

#include <stdint.h>

#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/frame/sync_context.h"

// The listings of both EMs, merged by the requester.
struct Comparison {
  FileEntry* merged_list;  // peer entries first; owned
  FileEntry** index;       // the same, grouped by file; owned, null when empty
  uint32_t n_entries;
  uint32_t n_peer_entries;
  uint32_t n_matched_chunks;  // identical on both sides
  bool lines_dropped;         // the peer's listing is incomplete
};

// One file: its chunks on both sides are index[first] to index[end - 1].
struct ComparedFile {
  uint32_t first;
  uint32_t end;
  bool here;
  bool there;
};

// Scans this EM's trees and pairs their chunks with the lines of the peer's listing (any bytes).
// Returns false if there is nothing to compare: after a failure, which is recorded in cpg_result or
// has ended the exchange, or because both sides are empty. The caller frees `*comparison` in any
// case.
bool gather_comparison(SyncContext* ctx, const uint8_t* payload, uint32_t payload_size,
                       Comparison* comparison);

// Advances to the next file, ordered by root and path. Start with an all-zero `*file`. False at the
// end.
bool next_compared_file(const Comparison& comparison, ComparedFile* file);

void free_comparison(Comparison* comparison);

#endif  // EXCHANGE_COMPARISON_H_
