#include "redundancy_health/transfer/outgoing.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "redundancy_health/catalog/pinned_path.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/transfer/update_message.h"
#include "redundancy_health/transport/cpg_message.h"
#include "redundancy_health/transport/exchange_outcome.h"

namespace {

bool carries_data(uint32_t update_type) {
  return update_type == PULL_ACK || update_type == PUSH_REQ;
}

bool is_answer(uint32_t update_type) {
  return update_type == PULL_ACK || update_type == PUSH_ACK || update_type == PUSH_DEL_ACK;
}

// Opens the file of an outgoing chunk. Negative with errno if that fails or a fault is injected.
int open_for_reading(const FileEntry* entry, const char* local_path) {
  if (have_error_injection(g_diag_params.fail_read_path, local_path)) return -1;
  return open_to_read(entry->root_index, local_path);
}

bool read_exactly(int f, uint32_t offset, char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = pread(f, data, size, offset);
    if (n == 0) errno = ENODATA;  // the file ends early
    if (n <= 0) return false;
    data += n;
    offset += static_cast<uint32_t>(n);
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Reads the status of a file; fails if the wire format cannot carry it.
bool take_status(int f, struct stat* status) {
  if (fstat(f, status) != 0) return false;
  if (!S_ISREG(status->st_mode)) {
    errno = S_ISDIR(status->st_mode) ? EISDIR : EINVAL;
    return false;
  }
  if (static_cast<uint64_t>(status->st_size) <= UINT32_MAX) return true;
  errno = EFBIG;
  return false;
}

// Reads the chunk of `entry` into `data` and fills in the header from the current state of the
// file. On failure returns false with errno and data_ok 0.
bool read_chunk(const FileEntry* entry, const char* local_path, UpdateHeader* header, char* data,
                size_t size) {
  const int f = open_for_reading(entry, local_path);
  if (f < 0) return false;
  struct stat status;
  if (read_exactly(f, entry->begin_offs, data, size) && take_status(f, &status)) {
    header->restricted = mode_is_restricted(status.st_mode);
    if (entry->update_type == PULL_ACK) header->file_size = static_cast<uint32_t>(status.st_size);
    header->data_ok = 1;
  }
  const int error = errno;
  CHECK_CLOSE_AS("fclose(f)", close(f));  // log text: keep it unchanged
  errno = error;
  return header->data_ok != 0;
}

UpdateHeader make_header(const FileEntry* entry) {
  UpdateHeader header;
  memset(&header, 0, sizeof(header));
  header.update_type = entry->update_type;
  header.marker = 1;
  header.root_index = entry->root_index;
  header.restricted = entry->restricted;
  header.file_size = entry->file_size;
  header.begin_offs = entry->begin_offs;
  header.end_offs = entry->end_offs;
  return header;
}

}  // namespace

void send_update_message(SyncContext* ctx, const FileEntry* entry, const char* local_path,
                         const RpcResult* result) {
  RpcResult msg_result;
  storage_cfg_set_result(&msg_result, RESULT_OK, nullptr);
  if (result != nullptr) msg_result = *result;
  // `cluster_sync_ctl explain` reads this format.
  LOG(7, "Send %s %s", update_type_name(entry->update_type), entry->relative_path);

  if (entry->update_type >= PUSH_NOP) CHECK_TRUE(false);  // the queue never contains such an entry
  const size_t read_size =
      carries_data(entry->update_type) ? entry->end_offs - entry->begin_offs : 0;
  CHECK_TRUE(read_size <= sizeof(ctx->data_chunk_buf));
  const size_t path_size = strlen(entry->relative_path) + 1;
  const auto msg_size = static_cast<ptrdiff_t>(sizeof(UpdateHeader) + path_size + read_size);
  char* msg = static_cast<char*>(malloc(static_cast<size_t>(msg_size)));
  CHECK_NOT_NULL(msg);

  beat(kReading);
  UpdateHeader header = make_header(entry);
  char* p = msg + sizeof(header);
  memcpy(p, entry->relative_path, path_size);
  p += path_size;
  if (!carries_data(entry->update_type)) {
    header.data_ok = 1;
  } else if (!read_chunk(entry, local_path, &header, p, read_size)) {
    const int error = errno;
    memset(p, 0, read_size);  // do not send uninitialised memory
    storage_cfg_set_result(&msg_result, RESULT_READ_FAILED, "Could not read file (%s): %s",
                           strerror(error), local_path);
    LOG(3, "%s", msg_result.reason);
    note_failure(msg_result.reason);
  }
  p += read_size;
  memcpy(msg, &header, sizeof(header));
  CHECK_TRUE(msg_size == p - msg);

  const bool answer = is_answer(entry->update_type);
  send_cpg_command(ctx, answer ? MSG_UPDATE_ACK : MSG_UPDATE_REQ, answer ? FLAG_PEER_EXCHANGE : 0,
                   &msg_result, msg, static_cast<uint32_t>(msg_size));
  if (!msg_result.success) ctx->cpg_result = msg_result;
  free(msg);
}

void update_next_chunk(SyncContext* ctx) {
  while (ctx->update_queue != nullptr) {
    FileEntry* entry = ctx->update_queue;
    ctx->update_queue = entry->next;
    if (!ctx->cur_exchange_em_is_active && is_shared_root(entry->root_index)) {
      LOG(7, "Skipping update of entry '%s' because this EM is standby", entry->path);
      free_file_entry(entry);
      continue;
    }
    ++ctx->cur_sequence_id;
    send_update_message(ctx, entry, entry->path, nullptr);
    free_file_entry(entry);
    return;
  }
  if (ctx->guarded_root != nullptr) {
    storage_cfg_set_result(&ctx->cpg_result, RESULT_EXCHANGE_FAILED,
                           "Exchange would delete %u of %u files in '%s'", ctx->guarded_deletions,
                           ctx->guarded_files, ctx->guarded_root);
    LOG(3, "Sync Error: %s", ctx->cpg_result.reason);
  }
  end_exchange(ctx);
}
