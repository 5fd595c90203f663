#include "redundancy_health/exchange/deletion_guard.h"

#include <stdlib.h>

#include <utility>

#include "redundancy_health/frame/checked_lock.h"
#include "redundancy_health/frame/diag_params.h"

namespace {

constexpr uint32_t kFewFiles = 10;  // up to this many deletions are always allowed

// Files and deletions in a tree, on the EM where the exchange would delete them.
struct Loss {
  uint32_t files;
  uint32_t deleted;
};

// The limit, or -1 for none.
long max_deleted_percent() {
  const char* text = getenv("MAX_DELETED_PERCENT");
  return text == nullptr || *text == '\0' ? -1 : strtol(text, nullptr, 10);
}

// Whether the diagnostic command allowed deletions. Resets it.
bool take_allowance() {
  HOLD_MUTEX(g_diag_params.mutex);
  return std::exchange(g_diag_params.allow_deletions, uint8_t{0}) != 0;
}

void count_losses(const Comparison& comparison, Loss (&losses)[kRootCount]) {
  ComparedFile file = {};
  while (next_compared_file(comparison, &file)) {
    const uint32_t root_index = comparison.index[file.first]->root_index;
    const bool here = root_index == kOtherEmRoot;  // where they would be deleted
    losses[root_index].files += here ? file.here : file.there;
    losses[root_index].deleted += here ? !file.there : !file.here;
  }
}

bool is_too_much(const Loss& loss, long percent) {
  return loss.deleted > kFewFiles &&
         uint64_t{loss.deleted} * 100 >
             static_cast<uint64_t>(percent > 0 ? percent : 0) * loss.files;
}

}  // namespace

Withheld withhold_deletions(SyncContext* ctx, const Comparison& comparison) {
  Withheld withheld = {};
  const bool allowed = take_allowance();
  const long percent = max_deleted_percent();
  if (allowed || percent < 0) return withheld;
  Loss losses[kRootCount] = {};
  count_losses(comparison, losses);
  for (uint32_t root_index = 0; root_index < kRootCount; ++root_index) {
    if (!is_too_much(losses[root_index], percent)) continue;
    if (is_shared_root(root_index) && !ctx->cur_exchange_em_is_active) continue;  // no rights
    withheld.roots[root_index] = true;
    if (ctx->guarded_root != nullptr) continue;
    ctx->guarded_root = root_paths[root_index];
    ctx->guarded_deletions = losses[root_index].deleted;
    ctx->guarded_files = losses[root_index].files;
  }
  return withheld;
}
