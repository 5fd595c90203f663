#ifndef CATALOG_TREE_SCAN_H_
#define CATALOG_TREE_SCAN_H_

#include "redundancy_health/catalog/file_entry.h"

// Lists every regular file of the four replicated roots, chunk by chunk with SHA-1 (FIPS 180-4),
// and pushes each chunk's entry, listing line made, at the head of `list` (empty at first). Above
// kMaxScanDepth levels, names that begin with kTempPrefix and everything but regular files and
// directories are left out. `requester` chooses the tag letters of the two EMs' own trees.
// Failures are recorded in cpg_result; the scan goes on with what it can read. The caller owns the
// list. On sync_thread.
void scan_replicated_roots(SyncContext* ctx, FileEntry** list, bool requester);

#endif  // CATALOG_TREE_SCAN_H_
