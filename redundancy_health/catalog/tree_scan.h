#ifndef CATALOG_TREE_SCAN_H_
#define CATALOG_TREE_SCAN_H_

#include "redundancy_health/catalog/file_entry.h"

// Lists every regular file of the four replicated roots, chunk by chunk with SHA-1 (FIPS 180-4).
// Pushes an entry with its listing line for each chunk at the head of `list` (empty at first).
// Skips names that begin with kTempPrefix, and everything that is not a regular file or a
// directory. `requester` chooses the tag letters of the own trees of the two EMs. Failures, such as
// a directory deeper than kMaxScanDepth, are recorded in cpg_result; the scan continues. The caller
// owns the list. On sync_thread.
void scan_replicated_roots(SyncContext* ctx, FileEntry** list, bool requester);

#endif  // CATALOG_TREE_SCAN_H_
