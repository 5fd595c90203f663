#include "redundancy_health/exchange/comparison.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "redundancy_health/catalog/confined_path.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/catalog/tree_scan.h"
#include "redundancy_health/exchange/checkpoint.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/transport/exchange_outcome.h"

namespace {

// Makes a peer entry from one listing line. Null if the line is invalid.
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

// Pushes an entry for every valid line at the head of the merged list. The payload ends in NUL.
void parse_listing(SyncContext* ctx, Comparison* comparison, const char* payload,
                   uint32_t payload_size) {
  const char* end = payload + payload_size;
  for (const char* line = payload; line < end; line += strlen(line) + 1) {
    FileEntry* rx_entry = parse_listing_line(line);
    if (rx_entry == nullptr) {
      storage_cfg_set_result(&ctx->cpg_result, RESULT_APPLY_FAILED,
                             // Callers get this text: keep it unchanged, misspelt.
                             "Malformed enty in CPG message");
      comparison->lines_dropped = true;
      continue;
    }
    rx_entry->next = comparison->merged_list;
    comparison->merged_list = rx_entry;
    ++comparison->n_peer_entries;
  }
}

// Sorts all entries, so that the chunks of a file are together and identical lines are adjacent,
// the local one first.
void sort_entries(Comparison* comparison) {
  // The elements are pointers. NOLINTBEGIN(bugprone-sizeof-expression)
  auto** index = static_cast<FileEntry**>(malloc(comparison->n_entries * sizeof(FileEntry*)));
  CHECK_NOT_NULL(index);
  size_t i = 0;
  for (FileEntry* entry = comparison->merged_list; entry != nullptr; entry = entry->next) {
    index[i++] = entry;
  }
  qsort(index, comparison->n_entries, sizeof(FileEntry*), compare_file_entries);
  // NOLINTEND(bugprone-sizeof-expression)
  comparison->index = index;
}

void pair_identical_chunks(Comparison* comparison) {
  FileEntry* const* index = comparison->index;
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

bool same_file(const FileEntry* a, const FileEntry* b) {
  return a->root_index == b->root_index && strcmp(a->relative_path, b->relative_path) == 0;
}

}  // namespace

bool gather_comparison(SyncContext* ctx, const uint8_t* payload, uint32_t payload_size,
                       Comparison* comparison) {
  *comparison = {};
  scan_replicated_roots(ctx, &comparison->merged_list, true);
  SKIP_IF_CANCELED(ctx, "compare_synced_files", return false);
  for (const FileEntry* entry = comparison->merged_list; entry != nullptr; entry = entry->next) {
    ++comparison->n_entries;
  }

  if (payload_size > 0) {
    if (payload[payload_size - 1] != '\0') {
      end_exchange_error(ctx, "Received malformed CPG message");
      return false;
    }
    parse_listing(ctx, comparison, reinterpret_cast<const char*>(payload), payload_size);
  }
  comparison->n_entries += comparison->n_peer_entries;
  if (comparison->n_entries == 0) return false;
  sort_entries(comparison);
  pair_identical_chunks(comparison);
  return true;
}

bool next_compared_file(const Comparison& comparison, ComparedFile* file) {
  if (file->end == comparison.n_entries) return false;
  *file = {file->end, file->end, false, false};
  const FileEntry* first = comparison.index[file->first];
  while (file->end < comparison.n_entries && same_file(first, comparison.index[file->end])) {
    (comparison.index[file->end]->is_local ? file->here : file->there) = true;
    ++file->end;
  }
  return true;
}

void free_comparison(Comparison* comparison) {
  free(comparison->index);
  comparison->index = nullptr;
  free_file_list(&comparison->merged_list);
}
