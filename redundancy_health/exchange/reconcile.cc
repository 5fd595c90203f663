#include "redundancy_health/exchange/reconcile.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <string>

#include "redundancy_health/catalog/confined_path.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/catalog/tree_scan.h"
#include "redundancy_health/exchange/checkpoint.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/transport/exchange_outcome.h"

namespace {

// The entries of both sides.
struct Comparison {
  FileEntry* merged_list;  // peer entries first; owned
  uint32_t n_entries;
  uint32_t n_peer_entries;
  uint32_t n_matched_chunks;
  bool lines_dropped;                             // the peer's listing is not known in full
  std::map<std::string, std::string> deleted_in;  // by directory, a file that was deleted there
};

// Makes a peer entry of one listing line, or returns null when the line is invalid.
FileEntry* parse_listing_line(const char* line) {
  char tag = '?';
  int position = -1;
  unsigned begin_offs = 0;
  unsigned end_offs = 0;
  (void)sscanf(line, "%c %*s %x %x %*s %n", &tag, &begin_offs, &end_offs, &position);
  const uint32_t root_index = tag_root_index(tag);
  if (root_index == kRootCount || position == -1 || !chunk_span_is_valid(begin_offs, end_offs)) {
    return nullptr;
  }
  const char* relative_path = line + position;
  if (*relative_path == '\0' || !relative_path_is_confined(relative_path)) return nullptr;

  FileEntry* rx_entry = new_file_entry(root_index, root_paths[root_index], relative_path);
  rx_entry->is_local = 0;
  rx_entry->xmit_line = strdup(line);
  CHECK_NOT_NULL(rx_entry->xmit_line);
  rx_entry->begin_offs = begin_offs;
  rx_entry->end_offs = end_offs;
  return rx_entry;
}

// Puts an entry for every valid line at the head of the merged list. The payload ends in NUL.
void parse_listing(SyncContext* ctx, Comparison* comparison, const char* payload,
                   uint32_t payload_size) {
  const char* end = payload + payload_size;
  for (const char* line = payload; line < end; line += strlen(line) + 1) {
    FileEntry* rx_entry = parse_listing_line(line);
    if (rx_entry == nullptr) {
      storage_cfg_set_result(&ctx->cpg_result, RESULT_APPLY_FAILED,
                             "Malformed enty in CPG message");
      comparison->lines_dropped = true;
      continue;
    }
    rx_entry->next = comparison->merged_list;
    comparison->merged_list = rx_entry;
    ++comparison->n_peer_entries;
  }
}

// All entries of the merged list, sorted so that the chunks of one file stand together and
// identical lines are neighbours, the local one first. The caller frees it.
FileEntry** sort_entries(const Comparison& comparison) {
  // The elements are pointers. NOLINTBEGIN(bugprone-sizeof-expression)
  auto** index = static_cast<FileEntry**>(malloc(comparison.n_entries * sizeof(FileEntry*)));
  CHECK_NOT_NULL(index);
  size_t i = 0;
  for (FileEntry* entry = comparison.merged_list; entry != nullptr; entry = entry->next) {
    index[i++] = entry;
  }
  qsort(index, comparison.n_entries, sizeof(FileEntry*), compare_file_entries);
  // NOLINTEND(bugprone-sizeof-expression)
  return index;
}

void pair_identical_chunks(Comparison* comparison, FileEntry* const* index) {
  for (uint32_t i = 0; i + 1 < comparison->n_entries; ++i) {
    FileEntry* local = index[i];
    FileEntry* peer = index[i + 1];
    if (!local->is_local || peer->is_local || strcmp(local->xmit_line, peer->xmit_line) != 0) {
      continue;
    }
    local->matched = 1;
    peer->matched = 1;
    ++comparison->n_matched_chunks;
  }
}

void record_failed_deletion(SyncContext* ctx, const char* path) {
  storage_cfg_set_result(&ctx->cpg_result, RESULT_READ_FAILED, "Could not delete file (%s): %s",
                         strerror(errno), path);
  LOG(3, "%s", ctx->cpg_result.reason);
}

// Deletes a file of the peer's tree that the peer no longer has.
void delete_local_copy(SyncContext* ctx, Comparison* comparison, const FileEntry* entry) {
  LOG(7, "@@ Pull del:  %s", entry->xmit_line);
  // Every chunk of the file names the same path: all but the first find it gone.
  if (unlink(entry->path) == 0) {
    const size_t slash = static_cast<size_t>(strrchr(entry->path, '/') - entry->path);
    comparison->deleted_in[std::string(entry->path, slash)] = entry->path;
  } else if (!file_is_gone(errno)) {
    record_failed_deletion(ctx, entry->path);
  }
}

// Brings the deletions to the disk, once a directory however many there were.
void sync_deletions(SyncContext* ctx, const Comparison& comparison) {
  for (const auto& [directory, path] : comparison.deleted_in) {
    if (storage_sync_name(path.c_str()) != 0) record_failed_deletion(ctx, path.c_str());
  }
}

// Decides for one file, whose chunks on both sides are index[first] to index[end - 1].
void decide_file(SyncContext* ctx, Comparison* comparison, FileEntry* const* index, uint32_t first,
                 uint32_t end) {
  bool here = false;
  bool there = false;
  for (uint32_t i = first; i < end; ++i)
    (index[i]->is_local ? here : there) = true;
  const bool from_peer = index[first]->root_index == kOtherEmRoot;
  for (uint32_t i = first; i < end; ++i) {
    FileEntry* entry = index[i];
    if (from_peer && !there) {
      // What looks absent may have been in a line that was dropped.
      if (!comparison->lines_dropped) delete_local_copy(ctx, comparison, entry);
    } else if (from_peer) {
      if (!entry->is_local && !entry->matched) entry->update_type = PULL_REQ;
    } else if (!here) {
      entry->update_type = PUSH_DEL_REQ;
    } else if (entry->is_local && !entry->matched) {
      entry->update_type = PUSH_REQ;
    }
  }
}

bool same_file(const FileEntry* a, const FileEntry* b) {
  return a->root_index == b->root_index && strcmp(a->relative_path, b->relative_path) == 0;
}

void decide_files(SyncContext* ctx, Comparison* comparison, FileEntry* const* index) {
  for (uint32_t first = 0; first < comparison->n_entries;) {
    uint32_t end = first + 1;
    while (end < comparison->n_entries && same_file(index[first], index[end]))
      ++end;
    decide_file(ctx, comparison, index, first, end);
    first = end;
  }
}

// Moves what is to be sent from the merged list to update_queue, whose order becomes the reverse,
// and frees the rest.
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
  free_file_list(&ctx->update_queue);
  Comparison comparison = {};
  scan_replicated_roots(ctx, &comparison.merged_list, true);
  SKIP_IF_CANCELED(ctx, __func__, {
    free_file_list(&comparison.merged_list);
    return;
  });
  for (const FileEntry* entry = comparison.merged_list; entry != nullptr; entry = entry->next) {
    ++comparison.n_entries;
  }

  if (payload_size > 0) {
    if (payload[payload_size - 1] != '\0') {
      end_exchange_error(ctx, "Received malformed CPG message");
      free_file_list(&comparison.merged_list);
      return;
    }
    parse_listing(ctx, &comparison, reinterpret_cast<const char*>(payload), payload_size);
  }
  comparison.n_entries += comparison.n_peer_entries;
  if (comparison.n_entries == 0) return;

  FileEntry** index = sort_entries(comparison);
  pair_identical_chunks(&comparison, index);
  decide_files(ctx, &comparison, index);
  sync_deletions(ctx, comparison);
  free(index);
  queue_updates(ctx, &comparison);
  LOG(7, "SYNC Local entries: %u; Peer entries: %u; Matched chunks: %u",
      comparison.n_entries - comparison.n_peer_entries, comparison.n_peer_entries,
      comparison.n_matched_chunks);
}
