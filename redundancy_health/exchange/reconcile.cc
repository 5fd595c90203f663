#include "redundancy_health/exchange/reconcile.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <string>

#include "redundancy_health/catalog/confined_path.h"
#include "redundancy_health/catalog/pinned_path.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/catalog/unsynced.h"
#include "redundancy_health/exchange/comparison.h"
#include "redundancy_health/exchange/deletion_guard.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/transfer/exchange_notes.h"
#include "redundancy_health/transfer/replaced_files.h"

namespace {

// For each directory, one file that was deleted there.
using Deletions = std::map<std::string, std::string>;

void record_failed_deletion(SyncContext* ctx, const char* path, int error) {
  storage_cfg_set_result(&ctx->cpg_result, RESULT_READ_FAILED, "Could not delete file (%s): %s",
                         strerror(error), path);
  LOG(3, "%s", ctx->cpg_result.reason);
}

// Deletes the copy of a file that the peer no longer has.
void delete_local_copy(SyncContext* ctx, Deletions* deletions, const FileEntry* entry) {
  // `cluster_sync_ctl explain` reads this format.
  LOG(7, "@@ Pull del:  %s", entry->xmit_line);
  PinnedPath file;
  int error = pin_path(entry->root_index, entry->path, &file);
  if (error == 0) error = unlink_keeping(entry->root_index, entry->path, file.dir_fd(), file.name);
  // The file has an entry for every chunk. The first one deletes it; for the others it is gone.
  if (error == 0) {
    note_deletion(ctx, entry->path);
    forget_unsynced_file(entry->path);
    const size_t slash = static_cast<size_t>(strrchr(entry->path, '/') - entry->path);
    (*deletions)[std::string(entry->path, slash)] = entry->path;
  } else if (!file_is_gone(error)) {
    record_failed_deletion(ctx, entry->path, error);
  }
}

// Syncs the deletions, once for each directory.
void sync_deletions(SyncContext* ctx, const Deletions& deletions) {
  for (const auto& [directory, path] : deletions) {
    PinnedPath file;
    int error = pin_path(kOtherEmRoot, path.c_str(), &file);
    if (error == 0 && sync_received_name(file.dir_fd()) != 0) error = errno;
    if (error != 0) record_failed_deletion(ctx, path.c_str(), error);
  }
}

// Decides the updates of one file, chunk by chunk.
void decide_file(SyncContext* ctx, const Comparison& comparison, const ComparedFile& file,
                 Deletions* deletions) {
  const bool from_peer = comparison.index[file.first]->root_index == kOtherEmRoot;
  for (uint32_t i = file.first; i < file.end; ++i) {
    FileEntry* entry = comparison.index[i];
    if (from_peer && !file.there) {
      // The file may have been in a dropped line.
      if (!comparison.lines_dropped) delete_local_copy(ctx, deletions, entry);
    } else if (from_peer) {
      if (!entry->is_local && !entry->matched) entry->update_type = PULL_REQ;
    } else if (!file.here) {
      entry->update_type = PUSH_DEL_REQ;
    } else if (entry->is_local && !entry->matched) {
      entry->update_type = PUSH_REQ;
    }
  }
}

void decide_files(SyncContext* ctx, const Comparison& comparison) {
  const Withheld withheld = withhold_deletions(ctx, comparison);
  Deletions deletions;
  ComparedFile file = {};
  while (next_compared_file(comparison, &file)) {
    const uint32_t root_index = comparison.index[file.first]->root_index;
    if (withheld.roots[root_index] && !(file.here && file.there)) continue;
    decide_file(ctx, comparison, file, &deletions);
  }
  sync_deletions(ctx, deletions);
}

// Moves the entries to send from the merged list to update_queue, which reverses their order, and
// frees the others.
void queue_updates(SyncContext* ctx, Comparison* comparison) {
  while (comparison->merged_list != nullptr) {
    FileEntry* entry = comparison->merged_list;
    comparison->merged_list = entry->next;
    if (entry->update_type == PUSH_NOP) {
      free_file_entry(entry);
      continue;
    }
    LOG(7, "SYNC Update chunk %-13s %s", update_type_name(entry->update_type), entry->xmit_line);
    entry->next = ctx->update_queue;
    ctx->update_queue = entry;
  }
}

}  // namespace

void compare_synced_files(SyncContext* ctx, const uint8_t* payload, uint32_t payload_size) {
  beat(kComparing);
  free_file_list(&ctx->update_queue);
  ctx->guarded_root = nullptr;
  Comparison comparison;
  if (gather_comparison(ctx, payload, payload_size, &comparison)) {
    decide_files(ctx, comparison);
    queue_updates(ctx, &comparison);
    LOG(7, "SYNC Local entries: %u; Peer entries: %u; Matched chunks: %u",
        comparison.n_entries - comparison.n_peer_entries, comparison.n_peer_entries,
        comparison.n_matched_chunks);
  }
  free_comparison(&comparison);
}
