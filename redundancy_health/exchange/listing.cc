#include "redundancy_health/exchange/listing.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "platform/em.h"
#include "redundancy_health/catalog/confined_path.h"
#include "redundancy_health/catalog/digest_file.h"
#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/catalog/pinned_path.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/catalog/tree_scan.h"
#include "redundancy_health/catalog/unsynced.h"
#include "redundancy_health/exchange/checkpoint.h"
#include "redundancy_health/exchange/rpc_request.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/frame/statistics.h"
#include "redundancy_health/transfer/exchange_notes.h"
#include "redundancy_health/transfer/replaced_files.h"
#include "redundancy_health/transport/cpg_message.h"

namespace {

// Pins this EM's copy of the requester's file and sets `*path` to its path. Returns false if this
// EM has no copy that the requester may move: the own tree and, on the active EM, the shared trees
// are not copies. `requesters` comes from the peer: a path that leaves the roots, or that would
// fail every later scan, is refused.
bool pin_copy(const char* requesters, std::string* path, PinnedPath* copy) {
  TreePath place;
  if (!split_tree_path(requesters, &place)) return false;
  const uint32_t root_index = peer_root_index(place.root_index);
  if (root_index == kThisEmRoot || (is_shared_root(root_index) && this_em_is_active())) {
    return false;
  }
  *path = std::string(root_paths[root_index]) + place.relative_path;
  return check_tree_path(path->c_str(), &place) == 0 &&
         pin_path(root_index, path->c_str(), copy) == 0;
}

// Repeats the requester's rename on this EM's copies, so that the content need not be sent. A
// temporary file has no copy here. After any failure the comparison finds the difference.
void repeat_rename(SyncContext* ctx, const uint8_t* payload, uint32_t payload_size) {
  RpcRequest request;
  if (!parse_rpc_request(payload, payload_size, &request)) return;
  std::string source_path;
  std::string destination_path;
  PinnedPath source;
  PinnedPath destination;
  if (!pin_copy(request.source, &source_path, &source) ||
      !pin_copy(request.destination, &destination_path, &destination)) {
    return;
  }
  // If the source is missing, nothing is replaced and the digests stay valid. If a file is
  // unsynced, it must be sent again under its own name.
  struct stat status;
  if (any_file_is_unsynced() ||
      fstatat(source.dir_fd(), source.name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return;
  }
  // The old digests could match the new file, if size and second are equal.
  remove_digest_file(destination, destination_path.c_str());
  keep_replaced(root_of_path(destination_path.c_str()), destination_path.c_str(), destination);
  if (renameat(source.dir_fd(), source.name, destination.dir_fd(), destination.name) != 0)
    return take_back_kept(destination_path.c_str());
  if (is_shared_root(root_of_path(destination_path.c_str())))
    note_shared_change(ctx, destination_path.c_str());
  // Identical files are never sent again, so the rename must be on the disk.
  if (sync_received_name(destination.dir_fd()) != 0 ||
      (source.directory != destination.directory && sync_received_name(source.dir_fd()) != 0)) {
    storage_cfg_set_result(&ctx->cpg_result, RESULT_APPLY_FAILED, "Unable to update file (%s): %s",
                           strerror(errno), destination_path.c_str());
    LOG(3, "%s", ctx->cpg_result.reason);
    note_failure(ctx->cpg_result.reason);
  }
}

// Packs the listing into one allocation of its exact size. Returns the size. `*listing` is null for
// an empty listing and after a failed scan. The caller frees it.
uint32_t gather_file_listing(SyncContext* ctx, char** listing) {
  *listing = nullptr;
  FileEntry* list = nullptr;
  scan_replicated_roots(ctx, &list, false);
  SKIP_IF_CANCELED(ctx, __func__, {
    free_file_list(&list);
    return 0;
  });

  uint32_t total_size = 0;
  for (const FileEntry* entry = list; entry != nullptr; entry = entry->next) {
    CHECK_NOT_NULL(entry->xmit_line);
    total_size += static_cast<uint32_t>(strlen(entry->xmit_line)) + 1;
  }
  if (total_size == 0) return 0;
  *listing = static_cast<char*>(malloc(total_size));
  CHECK_NOT_NULL(*listing);
  char* cur_line = *listing;
  for (const FileEntry* entry = list; entry != nullptr; entry = entry->next) {
    cur_line = stpcpy(cur_line, entry->xmit_line) + 1;
  }
  CHECK_TRUE(*listing + total_size == cur_line);
  free_file_list(&list);
  return total_size;
}

}  // namespace

void serve_listing_request(SyncContext* ctx, const uint8_t* payload, uint32_t payload_size) {
  repeat_rename(ctx, payload, payload_size);
  char* listing = nullptr;
  const uint32_t total_size = gather_file_listing(ctx, &listing);
  if (!ctx->cpg_result.canceled) {
    send_cpg_command(ctx, MSG_LISTING_ACK, FLAG_PEER_EXCHANGE, &ctx->cpg_result, listing,
                     total_size);
    note_listing_served();
  }
  free(listing);
  stats.n_syncs_from_peer += 1;
}
