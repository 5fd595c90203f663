#ifndef EXCHANGE_DELETION_GUARD_H_
#define EXCHANGE_DELETION_GUARD_H_

#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/exchange/comparison.h"

// Protects against a tree that was emptied by accident: a new or unmounted disk, a wrong role. Off
// unless MAX_DELETED_PERCENT is in the environment.

// For each root on this EM, whether its deletions are left out. New files are left out, too:
// they would make the share smaller, and the next exchange would delete the rest.
struct Withheld {
  bool roots[kRootCount];
};

// Leaves out the deletions of each tree that would lose more than MAX_DELETED_PERCENT of its files,
// and more than ten, unless deletions are allowed this once. Counts the files on the EM where they
// would be deleted. The first such tree is remembered; the exchange does the rest and ends as a
// failure. On sync_thread.
Withheld withhold_deletions(SyncContext* ctx, const Comparison& comparison);

#endif  // EXCHANGE_DELETION_GUARD_H_
