#ifndef EXCHANGE_DELETION_GUARD_H_
#define EXCHANGE_DELETION_GUARD_H_

#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/exchange/comparison.h"

// The guard against a tree that was emptied by accident: a new or unmounted disk, a wrong role. It
// is off unless MAX_DELETED_PERCENT is in the environment.

// Whether the deletions of a tree are left out, by its root here.
struct Withheld {
  bool roots[kRootCount];
};

// Withholds the deletions of each tree that would lose more than MAX_DELETED_PERCENT of the files
// that it has where they would be deleted, and more than ten, unless deletions are allowed this
// once. The first such tree is remembered: the exchange does the rest and ends as a failure. On
// sync_thread.
Withheld withhold_deletions(SyncContext* ctx, const Comparison& comparison);

#endif  // EXCHANGE_DELETION_GUARD_H_
