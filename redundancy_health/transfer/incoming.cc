#include "redundancy_health/transfer/incoming.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/descriptor.h"
#include "platform/em.h"
#include "redundancy_health/catalog/confined_path.h"
#include "redundancy_health/catalog/digest_file.h"
#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/catalog/pinned_path.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/catalog/unsynced.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/frame/statistics.h"
#include "redundancy_health/transfer/clear_way.h"
#include "redundancy_health/transfer/exchange_notes.h"
#include "redundancy_health/transfer/outgoing.h"
#include "redundancy_health/transfer/replaced_files.h"
#include "redundancy_health/transfer/update_message.h"
#include "redundancy_health/transport/exchange_outcome.h"

namespace {

constexpr int kStorageKind = 7;

// A parsed update. The pointers point into the payload.
struct Update {
  UpdateHeader header;
  const char* relative_path;
  const uint8_t* data;
  uint32_t data_size;
  uint32_t local_root_index;
};

// Files whose replacement is reported to the platform. The id is the index and the argument of
// use_replicated_data.
struct KnownFile {
  uint32_t id;
  uint32_t kind;
  const char* name;
};

constexpr KnownFile known_file_table[] = {
    {0, 2, "maint_pass"},       {1, 2, "maint_shell"},      {2, 2, "ip_addr_config.json"},
    {3, 5, "device_counts"},    {4, 3, "dhcpv4_data.json"}, {5, 4, "dhcpv4_data.json"},
    {6, 3, "dhcpv6_data.json"}, {7, 4, "dhcpv6_data.json"}, {8, 3, "slaac_data.json"},
    {9, 4, "slaac_data.json"},  {10, 2, "shadow"},          {11, 2, "shadow+"},
    {12, 2, "passwd"},          {13, 2, "passwd+"},         {14, 2, "INVALID"},
};
constexpr size_t kKnownFiles = sizeof(known_file_table) / sizeof(known_file_table[0]) - 1;

// Parses a payload. Returns false if it is malformed.
bool parse_update(const uint8_t* payload, uint32_t payload_size, Update* update) {
  if (payload_size <= sizeof(UpdateHeader)) return false;
  memcpy(&update->header, payload, sizeof(UpdateHeader));
  const uint8_t* path = payload + sizeof(UpdateHeader);
  const uint8_t* end = payload + payload_size;
  const auto* nul = static_cast<const uint8_t*>(memchr(path, 0, static_cast<size_t>(end - path)));
  if (nul == nullptr || update->header.root_index >= kRootCount) return false;
  update->relative_path = reinterpret_cast<const char*>(path);
  if (!relative_path_is_confined(update->relative_path) ||
      !relative_path_is_listable(update->relative_path)) {
    return false;
  }
  update->data = nul + 1;
  update->data_size = static_cast<uint32_t>(end - update->data);
  update->local_root_index = peer_root_index(update->header.root_index);
  return true;
}

// Reports the replacement of a known file to the platform.
void process_updated_file(const FileEntry* local) {
  if (local->root_index == kThisEmRoot) return;  // its own file, written by the peer
  LOG_PLATFORM_ONLY(6, "%s", local->relative_path);
  for (size_t i = 0; i < kKnownFiles; ++i) {
    if (strcmp(known_file_table[i].name, local->relative_path) != 0) continue;
    if (use_replicated_data(known_file_table[i].id, 0) == 0) {
      LOG_PLATFORM_ONLY(6, "Initiated processing of updated file %s", local->path);
    } else {
      LOG_PLATFORM_ONLY(3, "Failed to process changes to %s", local->path);
    }
    return;
  }
}

int open_replacement(const PinnedPath& file, bool restricted, StorageHandle** handle) {
  const int flags = restricted ? kStorageOpenWrite | kStorageOpenRestricted : kStorageOpenWrite;
  return storage_open_at(kStorageKind, file.dir_fd(), file.name, flags, handle);
}

// Renames the replacement into place. Sets `*replaced` even if its name may not survive a power
// failure. Returns 0 or an error number.
int close_replacement(const FileEntry* local, const PinnedPath& file, StorageHandle* handle,
                      bool* replaced) {
  const int rc = storage_close(handle);
  const int error = rc == 0 ? 0 : errno;
  *replaced = rc == 0 || rc == kStorageReplaced;
  if (rc == kStorageReplaced) note_unsynced_directory(file.dir_fd());
  if (!*replaced) take_back_kept(local->path);
  return error;
}

// Replaces the whole file. Returns 0 or an error number.
int replace_file(const FileEntry* local, const Update& update, const PinnedPath& file) {
  if (have_error_injection(g_diag_params.fail_write_path, local->path)) return EDOM;
  StorageHandle* handle = nullptr;
  if (open_replacement(file, update.header.restricted == 1, &handle) != 0) return errno;
  errno = 0;
  if (storage_write_all(handle, update.data, update.data_size) != 0) {
    const int error = errno;
    storage_close(handle);
    return error != 0 ? error : errno;
  }
  beat(kSyncing);
  keep_replaced(local->root_index, local->path, file);
  bool replaced;
  const int error = close_replacement(local, file, handle, &replaced);
  if (replaced) {
    forget_unsynced_file(local->path);
    process_updated_file(local);
  }
  return error;
}

// Whether received bytes need a new inode. A user who has the old file open or has another link to
// it must not read or change the new content. No byte of a secret may be in a file that becomes
// public.
bool needs_new_inode(const struct stat& status, bool restricted) {
  return status.st_uid != geteuid() || status.st_nlink > 1 ||
         mode_is_restricted(status.st_mode) != restricted;
}

// Copies the rest of an open file. Returns 0 or an error number.
int copy_bytes(int fd, StorageHandle* handle) {
  char bytes[kChunkSize];
  for (;;) {
    const ssize_t n = read(fd, bytes, sizeof(bytes));
    if (n <= 0) return n == 0 ? 0 : errno;
    if (storage_write_all(handle, bytes, static_cast<size_t>(n)) != 0) return errno;
  }
}

// Replaces the open file by a new one. If the mode class changes, all chunks will be sent;
// otherwise only the differing ones, so the rest is copied. Returns 0 or an error number.
int renew_inode(const FileEntry* local, const PinnedPath& file, int old_fd, bool restricted,
                bool copied) {
  StorageHandle* handle = nullptr;
  if (open_replacement(file, restricted, &handle) != 0) return errno;
  const int error = copied ? copy_bytes(old_fd, handle) : 0;
  if (error != 0) {
    storage_discard(handle);
    return error;
  }
  bool replaced;
  return close_replacement(local, file, handle, &replaced);
}

// Opens the file for a chunk. Creates it if it is missing or needs a new inode. `*created` tells
// whether the name is new. Returns 0 or an error number.
int open_for_chunk(const FileEntry* local, const PinnedPath& file, bool restricted, Descriptor* fd,
                   bool* created) {
  constexpr int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  *created = false;
  for (bool renewed = false;; renewed = true) {
    fd->reset(openat(file.dir_fd(), file.name, flags));
    if (!fd->is_open()) break;
    struct stat status;
    if (fstat(fd->get(), &status) != 0) return errno;
    const bool replaced = needs_new_inode(status, restricted);
    if (replaced && renewed) return EBUSY;  // meanwhile another process has put its own file there
    keep_before_chunk(local->root_index, local->path, file, fd->get(), replaced);
    if (!replaced) return 0;
    const bool copied = mode_is_restricted(status.st_mode) == restricted;
    const int error = renew_inode(local, file, fd->get(), restricted, copied);
    if (error != 0) return error;
  }
  if (errno != ENOENT) return errno;
  keep_before_chunk(local->root_index, local->path, file, -1, false);
  const mode_t mode = restricted ? 0600 : 0644;
  fd->reset(openat(file.dir_fd(), file.name, flags | O_CREAT | O_EXCL, mode));
  *created = fd->is_open();
  // A default ACL of the directory may change the mode of a new file.
  return *created && fchmod(fd->get(), mode) == 0 ? 0 : errno;
}

// Sets the length of an open file, writes the received bytes and syncs them. Returns 0 or an error
// number.
int fill_file(int fd, const FileEntry* local, const Update& update) {
  if (ftruncate(fd, update.header.file_size) != 0 ||
      lseek(fd, update.header.begin_offs, SEEK_SET) < 0) {
    return errno;
  }
  const int error = write_fully(fd, update.data, update.data_size);
  if (error != 0) return error;
  beat(kSyncing);
  // Not fdatasync: after a power failure with the old modification time, old digests would match
  // the new bytes.
  if (fsync(fd) != 0) {
    const int sync_error = errno;
    note_unsynced_file(local->path);
    return sync_error;
  }
  note_synced_chunk(local->path, update.header.begin_offs, update.header.file_size);
  return 0;
}

// Writes one chunk in place. Returns 0 or an error number.
int write_chunk(const FileEntry* local, const Update& update, const PinnedPath& file) {
  if (uint64_t{update.header.begin_offs} + update.data_size > UINT32_MAX) return EFBIG;
  bool created = false;
  Descriptor fd;
  int error = open_for_chunk(local, file, update.header.restricted == 1, &fd, &created);
  if (error == 0) error = fill_file(fd.get(), local, update);
  if (fd.is_open()) {
    const int r = close(fd.release());  // the name is log text
    CHECK_CLOSE(r);
    if (r < 0 && error == 0) error = errno;
  }
  // Even after a failure, because for the next chunk the name is not new.
  if (created && sync_received_name(file.dir_fd()) != 0 && error == 0) error = errno;
  return error;
}

// Replaces whatever is at the path. Returns 0 or an error number.
int write_whole_file(const FileEntry* local, const Update& update, const PinnedPath& file) {
  remove_digest_file(file, local->path);
  int error = replace_file(local, update, file);
  if (error != EISDIR) return error;
  error = clear_target(local->root_index, local->path, file);
  return error == 0 ? replace_file(local, update, file) : error;
}

// Writes received data. Returns 0 or an error number.
int write_once(const FileEntry* local, const Update& update, bool atomic) {
  PinnedPath file;
  int error = clear_way(local->root_index, local->path, &file);
  if (error != 0) return error;
  if (atomic) return write_whole_file(local, update, file);
  error = clear_target(local->root_index, local->path, file);
  if (error != 0) return error;
  // After a power failure the old digests must not match a half-written file.
  if (remove_digest_file(file, local->path) && sync_received_name(file.dir_fd()) != 0) return errno;
  return write_chunk(local, update, file);
}

// The same. If the disk is full, removes kept files and tries again.
int write_update(const FileEntry* local, const Update& update, bool atomic) {
  int error;
  do {
    error = write_once(local, update, atomic);
  } while ((error == ENOSPC || error == EDQUOT) && drop_kept());
  return error;
}

void update_file(const FileEntry* local, const Update& update, RpcResult* result) {
  beat(kWriting);
  if (!update.header.data_ok) {
    LOG(7, "SYNC update IGNORED due to error on sender side %s", update.relative_path);
    return;
  }
  const bool atomic =
      update.header.begin_offs == 0 && update.header.end_offs == update.header.file_size;
  // `cluster_sync_ctl explain` reads this format.
  LOG(7, "SYNC updating chunk atomic=%d size=%u offs=0x%x '%s'", atomic, update.data_size,
      update.header.begin_offs, local->path);
  const int error = write_update(local, update, atomic);
  if (error != 0) {
    storage_cfg_set_result(result, RESULT_APPLY_FAILED, "Unable to update file (%s): %s",
                           strerror(error), local->path);
  } else {
    stats.n_chunk_writes_from_peer += 1;
  }
}

void delete_file(SyncContext* ctx, const FileEntry* local, RpcResult* result) {
  beat(kWriting);
  // `cluster_sync_ctl explain` reads this format.
  LOG(7, "SYNC Deleting file %s", local->path);
  PinnedPath file;
  int error = pin_path(local->root_index, local->path, &file);
  if (error == 0) error = unlink_keeping(local->root_index, local->path, file.dir_fd(), file.name);
  if (error == 0) {
    note_deletion(ctx, local->path);
    forget_unsynced_file(local->path);
    if (sync_received_name(file.dir_fd()) != 0) error = errno;
  }
  if (error != 0 && !file_is_gone(error)) {
    storage_cfg_set_result(result, RESULT_APPLY_FAILED, "Unable to delete file (%s): %s",
                           strerror(error), local->path);
  }
}

// Answers a change with its result. If it failed, the active EM schedules a resync; a standby EM
// does not retry.
void answer_change(SyncContext* ctx, FileEntry* remote, uint32_t update_type,
                   const char* local_path, const RpcResult& result) {
  remote->update_type = update_type;
  send_update_message(ctx, remote, local_path, &result);
  if (!result.success && this_em_is_active()) arm_resync(ctx);
}

// Applies an update and answers a request. `local` names the file in this EM's root numbering,
// `remote` in the sender's.
void apply_update(SyncContext* ctx, const Update& update, FileEntry* local, FileEntry* remote) {
  RpcResult result;
  storage_cfg_set_result(&result, RESULT_OK, nullptr);
  switch (update.header.update_type) {
    case PUSH_DEL_REQ:
      if (is_shared_root(local->root_index)) note_shared_change(ctx, local->path);
      delete_file(ctx, local, &result);
      answer_change(ctx, remote, PUSH_DEL_ACK, local->path, result);
      break;
    case PULL_REQ:
      LOG(7, "SYNC pulling file '%s' -> '%s'", local->path, remote->path);
      local->update_type = PULL_ACK;
      local->begin_offs = update.header.begin_offs;
      local->end_offs = update.header.end_offs;
      send_update_message(ctx, local, local->path, nullptr);
      break;
    case PUSH_REQ:
      if (is_shared_root(local->root_index)) note_shared_change(ctx, local->path);
      update_file(local, update, &result);
      answer_change(ctx, remote, PUSH_ACK, local->path, result);
      break;
    case PULL_ACK:
      update_file(local, update, &result);
      if (!result.success) {  // there is no answer to carry the failure
        ctx->cpg_result = result;
        LOG(3, "%s", result.reason);
      }
      break;
    default:
      break;
  }
  if (!result.success) note_failure(result.reason);
}

}  // namespace

void on_update_chunk(SyncContext* ctx, const uint8_t* payload, uint32_t payload_size) {
  Update update;
  if (!parse_update(payload, payload_size, &update)) {
    end_exchange_error(ctx, "Received malformed UPDATE_REQ message");
    return;
  }
  if (!chunk_span_is_valid(update.header.begin_offs, update.header.end_offs)) {
    end_exchange_error(ctx, "Chunk size in request header too large");
    return;
  }
  FileEntry* local = new_file_entry(update.local_root_index, root_paths[update.local_root_index],
                                    update.relative_path);
  FileEntry* remote = new_file_entry(update.header.root_index, root_paths[update.header.root_index],
                                     update.relative_path);
  apply_update(ctx, update, local, remote);
  free_file_entry(local);
  free_file_entry(remote);
}
