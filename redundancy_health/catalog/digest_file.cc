#include "redundancy_health/catalog/digest_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "redundancy_health/catalog/confined_path.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/catalog/scan_failure.h"
#include "redundancy_health/catalog/unsynced.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/frame/statistics.h"
#include "redundancy_health/transport/exchange_outcome.h"

namespace {

constexpr size_t kPrefixLength = sizeof(kDigestPrefix) - 1;
constexpr size_t kLineSize = 256;

// Chunks and bytes loaded from one digest cache file, for the statistics.
struct LoadedLines {
  uint32_t count;
  int64_t bytes;
};

enum class LoadState {
  kComplete,
  kStale,   // for an older state of the data file, or truncated
  kTorn,    // damaged: not as a scan writes it
  kFailed,  // could not be read
};

// The name of the digest cache file of a data file.
std::string digest_name_of(const char* data_name) {
  return std::string(kDigestPrefix) + data_name;
}

// The path of another file in the directory of `file`. The caller frees it.
char* sibling_path(const ScannedFile& file, const char* name) {
  const auto dir_length = static_cast<int>(strlen(file.entry->path) - strlen(file.name));
  char* path = nullptr;
  CHECK_NOT_NEGATIVE(asprintf(&path, "%.*s%s", dir_length, file.entry->path, name));
  return path;
}

// Deletes a digest cache file whose data file does not exist.
void delete_if_orphaned(SyncContext* ctx, const ScannedFile& digest) {
  const char* data_name = digest.name + kPrefixLength;
  const char* path = digest.entry->path;
  // For the bare prefix, the data file would be the directory itself.
  if (*data_name == '\0' || faccessat(digest.dir_fd, data_name, F_OK, 0) == 0) return;
  const int error = errno;
  if (error == ENOENT) {
    LOG(7, "Found orphaned digest file '%s'; Deleting it.", path);
    if (unlinkat(digest.dir_fd, digest.name, 0) != 0) {
      RECORD_SCAN_FAILURE(ctx, 0, "Could not delete orphaned digest file (%s): %s", strerror(errno),
                          path);
    }
  } else {
    char* data_path = sibling_path(digest, data_name);
    RECORD_SCAN_FAILURE(ctx, 1, "Could not determine status of target file (%s): %s",
                        strerror(error), data_path);
    free(data_path);
  }
}

// Reads the header line. Failures are recorded.
LoadState read_header(SyncContext* ctx, FILE* f, const char* digest_path,
                      const struct stat& status) {
  char line[kLineSize];
  if (fgets(line, sizeof(line), f) == nullptr) {
    if (!ferror(f)) return LoadState::kStale;
    RECORD_SCAN_FAILURE(ctx, 1, "Could not read digest file (%s) '%s'", strerror(errno),
                        digest_path);
    return LoadState::kFailed;
  }
  unsigned size;
  long long mtime;
  char newline[2];
  if (sscanf(line, "Digest-V1 %u %lld%1[\n]", &size, &mtime, newline) < 3) {
    RECORD_SCAN_FAILURE(ctx, 0, "Invalid digest file header in '%s'", digest_path);
    return LoadState::kTorn;
  }
  const bool fits = size == static_cast<uint64_t>(status.st_size) &&
                    mtime == static_cast<long long>(status.st_mtime);
  return fits ? LoadState::kComplete : LoadState::kStale;
}

// Makes the entry of one chunk line, or returns null if the line is invalid. A chunk above
// kChunkSize is invalid: no scan writes one and no message could carry it.
FileEntry* parse_chunk_line(const char* line, const ScannedFile& data) {
  FileEntry* chunk = new_file_entry(data.entry->root_index, nullptr, data.entry->path);
  chunk->file_size = static_cast<uint32_t>(data.status.st_size);
  chunk->restricted = mode_is_restricted(data.status.st_mode);
  char newline[2];
  if (sscanf(line, "%40s %x %x%1[\n]", chunk->digest, &chunk->begin_offs, &chunk->end_offs,
             newline) < 4 ||
      !chunk_span_is_valid(chunk->begin_offs, chunk->end_offs)) {
    free_file_entry(chunk);
    return nullptr;
  }
  return chunk;
}

LoadState read_chunk_lines(SyncContext* ctx, FILE* f, FileEntry** list, const ScannedFile& data,
                           const char* digest_path, LoadedLines* loaded) {
  const uint64_t n_chunks = static_cast<uint64_t>(data.status.st_size) / kChunkSize + 1;
  char line[kLineSize];
  for (;;) {
    if (fgets(line, sizeof(line), f) == nullptr) {
      if (!ferror(f)) break;
      RECORD_SCAN_FAILURE(ctx, 1, "Could not read digest file (%s) '%s'", strerror(errno),
                          digest_path);
      return LoadState::kFailed;
    }
    // Too many lines: stop before they fill the memory and the listing.
    if (loaded->count == n_chunks) return LoadState::kStale;
    FileEntry* chunk = parse_chunk_line(line, data);
    if (chunk == nullptr) {
      RECORD_SCAN_FAILURE(ctx, 1, "Invalid digest file contents '%s'", digest_path);
      return LoadState::kTorn;
    }
    loaded->bytes += chunk->end_offs - chunk->begin_offs;
    ++loaded->count;
    compute_xmit_line(chunk, data.tag);
    chunk->next = *list;
    *list = chunk;
  }
  // Too few lines: the power failed while the file was being written.
  return loaded->count < n_chunks ? LoadState::kStale : LoadState::kComplete;
}

// Whether a digest cache file can be trusted. A user who could write it could hide a change of its
// data file from the other EM, so it must be the daemon's own work. A directory passes here;
// reading it then fails with an error.
bool may_be_believed(int digest_file) {
  struct stat status;
  if (fstat(digest_file, &status) != 0) return false;
  return S_ISDIR(status.st_mode) ||
         (S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1 &&
          (status.st_mode & (S_IWGRP | S_IWOTH)) == 0);
}

// Loads the chunks of `data` from its digest cache file. Returns false if the data file must be
// hashed.
bool load_digest_file(SyncContext* ctx, FileEntry** list, const ScannedFile& data,
                      const char* digest_name, const char* digest_path) {
  FILE* f = open_stream(data.dir_fd, digest_name, O_RDONLY, 0, "r");
  if (f == nullptr) {
    RECORD_SCAN_FAILURE(ctx, 1, "Could not open digest file (%s): %s", strerror(errno),
                        digest_path);
    return false;
  }
  FileEntry* const list_before = *list;
  LoadedLines loaded = {0, 0};
  LoadState state = may_be_believed(fileno(f)) ? read_header(ctx, f, digest_path, data.status)
                                               : LoadState::kStale;
  if (state == LoadState::kComplete) {
    state = read_chunk_lines(ctx, f, list, data, digest_path, &loaded);
  }
  if (state == LoadState::kStale) {
    LOG(7, "Digest file '%s' has stale data. Ignoring", digest_path);
    while (*list != list_before) {
      FileEntry* chunk = *list;
      *list = chunk->next;
      free_file_entry(chunk);
    }
  } else {
    stats.n_digest_bytes_elided += loaded.bytes;
    stats.n_digest_chunks_scanned += loaded.count;
    if (state == LoadState::kComplete) stats.n_digest_files_scanned += 1;
  }
  CHECK_CLOSE(fclose(f));
  // Torn by a power failure. For a large file it is rewritten anyway; for a file that has become
  // small it would fail every later scan.
  if (state == LoadState::kTorn) unlinkat(data.dir_fd, digest_name, 0);
  return state == LoadState::kComplete;
}

// Whether to look for the digest cache file of `file`. Looking up a missing name is the most
// expensive call of a scan, and most directories have no digest cache files. A name that would be
// too long must still fail.
bool may_have_digest_file(const ScannedFile& file) {
  return file.near_digests || strlen(file.name) + kPrefixLength > NAME_MAX;
}

// Removes the old digest cache file, syncs the data file and creates the new one. A local program
// may have written the data just now. After a power failure, old digests must not match
// half-written data, and new digests must not match data that was still in memory: a small file may
// reach the disk before a large one.
FILE* create_digest_file(const ScannedFile& data, int data_fd) {
  const std::string name = digest_name_of(data.name);
  if (unlinkat(data.dir_fd, name.c_str(), 0) == 0 && fsync(data.dir_fd) != 0) return nullptr;
  beat(kSyncing);
  if (fsync(data_fd) != 0) return nullptr;
  return open_stream(data.dir_fd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644, "w");
}

}  // namespace

char* compute_digest_path(const char* path) {
  const char* slash = strrchr(path, '/');
  const char* base = slash != nullptr ? slash + 1 : path;
  if (is_digest_name(base)) return nullptr;
  char* digest_path = nullptr;
  const int r =
      asprintf(&digest_path, "%.*s%s%s", static_cast<int>(base - path), path, kDigestPrefix, base);
  CHECK_TRUE(r >= 0);  // log text: keep it unchanged
  return digest_path;
}

bool remove_digest_file(const PinnedPath& file, const char* path) {
  // A name with a trailing slash names a directory.
  errno = ENOENT;
  if (is_digest_name(file.name) || strchr(file.name, '/') != nullptr) return false;
  if (unlinkat(file.dir_fd(), digest_name_of(file.name).c_str(), 0) == 0) return true;
  const int error = errno;
  if (error != ENOENT) {
    char* digest_path = compute_digest_path(path);
    LOG(3, "Could not remove stale digest file '%s': %s", digest_path, strerror(error));
    free(digest_path);
  }
  errno = error;
  return false;
}

DigestLookup check_digest_file(SyncContext* ctx, FileEntry** list, const ScannedFile& file) {
  if (is_digest_name(file.name)) {
    delete_if_orphaned(ctx, file);
    return DigestLookup::kIsDigestFile;
  }
  if (!may_have_digest_file(file)) return DigestLookup::kHashData;
  const std::string digest_name = digest_name_of(file.name);
  const bool exists = faccessat(file.dir_fd, digest_name.c_str(), F_OK, 0) == 0;
  if (!exists && errno == ENOENT) return DigestLookup::kHashData;
  const int error = errno;
  bool loaded = false;
  char* digest_path = sibling_path(file, digest_name.c_str());
  if (exists) {
    loaded = load_digest_file(ctx, list, file, digest_name.c_str(), digest_path);
  } else {
    RECORD_SCAN_FAILURE(ctx, 1, "Could not determine status of digest file (%s): %s",
                        strerror(error), digest_path);
  }
  free(digest_path);
  return loaded ? DigestLookup::kLoaded : DigestLookup::kHashData;
}

DigestWriter start_digest_file(const ScannedFile& data, int data_fd) {
  DigestWriter writer = {nullptr, nullptr, 0};
  if (data.status.st_size <= static_cast<off_t>(kChunkSize)) return writer;
  // After a power failure, digests would match bytes that never reached the disk.
  if (file_is_unsynced(data.entry->path)) return writer;
  writer.path = compute_digest_path(data.entry->path);
  writer.file = create_digest_file(data, data_fd);
  if (writer.file == nullptr) {
    LOG(3, "Could not open digest file '%s': %s", writer.path, strerror(errno));
    return writer;
  }
  if (fprintf(writer.file, "Digest-V1 %lu %lld\n", static_cast<unsigned long>(data.status.st_size),
              static_cast<long long>(data.status.st_mtime)) < 0) {
    writer.error = errno;
  }
  stats.n_digest_files_created += 1;
  return writer;
}

void append_digest_line(DigestWriter* writer, const FileEntry* chunk) {
  if (writer->file == nullptr || writer->error != 0) return;
  char line[kChunkFieldsSize + 1];
  char* end = put_chunk_fields(line, chunk);
  *end++ = '\n';
  const auto size = static_cast<size_t>(end - line);
  if (fwrite(line, 1, size, writer->file) != size) writer->error = errno;
}

void finish_digest_file(SyncContext* ctx, const ScannedFile& data, DigestWriter* writer) {
  if (writer->file != nullptr) {
    const int r = fclose(writer->file);
    const int close_error = errno;
    CHECK_CLOSE(r);
    if (r != 0 && writer->error == 0) writer->error = close_error;
    if (writer->error != 0) {
      LOG_PLATFORM_ONLY(3, "Error occurred updating digest file '%s'; removing it: %s",
                        writer->path, strerror(writer->error));
      if (unlinkat(data.dir_fd, digest_name_of(data.name).c_str(), 0) != 0) {
        LOG_PLATFORM_ONLY(3, "Error occurred removing bad digest file '%s': %s", writer->path,
                          strerror(errno));
        end_exchange_full(ctx, RESULT_READ_FAILED, "Corrupt digest file '%s' can't be removed.",
                          writer->path);
      }
    }
  }
  free(writer->path);
}
