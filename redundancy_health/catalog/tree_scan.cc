#include "redundancy_health/catalog/tree_scan.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "redundancy_health/catalog/digest_file.h"
#include "redundancy_health/catalog/pinned_path.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/catalog/scan_failure.h"
#include "redundancy_health/catalog/unsynced.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/frame/statistics.h"

namespace {

struct ScannedRoot {
  uint32_t root_index;
  char requester_tag;
  char responder_tag;
};

// In scan order. On both sides 'P' is the responder's own tree and 'Q' the requester's.
constexpr ScannedRoot kScannedRoots[] = {
    {kActivePersistentRoot, 'A', 'A'},
    {kActiveVolatileRoot, 'V', 'V'},
    {kThisEmRoot, 'Q', 'P'},
    {kOtherEmRoot, 'P', 'Q'},
};

// The scan of one root.
struct Scan {
  SyncContext* ctx;
  FileEntry** list;
  EVP_MD_CTX* digest_context;  // for the whole listing
  uint32_t root_index;
  char tag;
};

// Fetches the algorithm once, so that it is not looked up at every init.
const EVP_MD* sha1_algorithm() {
  static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  return algorithm;
}

// Writes the SHA-1 of `data` to `out`: 40 lower-case hexadecimal digits and a NUL.
void compute_sha1(EVP_MD_CTX* digest_context, const void* data, size_t length, char* out) {
  static const char digits[] = "0123456789abcdef";
  constexpr unsigned digest_size = 20;
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned md_size = 0;
  // These calls return 1 for success. The odd form of the check is log text: keep it unchanged.
  int mdr = EVP_DigestInit_ex(digest_context, sha1_algorithm(), nullptr);
  CHECK_ZERO(0 == mdr);
  mdr = EVP_DigestUpdate(digest_context, data, length);
  CHECK_ZERO(0 == mdr);
  mdr = EVP_DigestFinal_ex(digest_context, md, &md_size);
  CHECK_ZERO(0 == mdr);
  CHECK_TRUE(digest_size >= md_size);
  for (unsigned i = 0; i < md_size; ++i) {
    *out++ = digits[md[i] >> 4];
    *out++ = digits[md[i] & 15];
  }
  *out = '\0';
}

// Reads the next chunk of `*size` bytes. Sets `*at_end` if the read reached the end of the file.
// False with errno on failure. Reads on after a short read, unless the file ends there: some file
// systems return less than requested.
bool read_chunk(int data_file, uint8_t* data, off_t file_size, uint64_t offset, size_t* size,
                bool* at_end) {
  *size = 0;
  *at_end = false;
  while (*size < kChunkSize && !*at_end) {
    const ssize_t n = read(data_file, data + *size, kChunkSize - *size);
    if (n < 0) return false;
    *size += static_cast<size_t>(n);
    *at_end = n == 0 || (*size < kChunkSize && offset + *size >= static_cast<uint64_t>(file_size));
  }
  return true;
}

// Hashes one chunk and pushes its entry.
void add_chunk(const Scan& scan, const ScannedFile& file, const uint8_t* data, uint32_t offset,
               uint32_t size, DigestWriter* writer) {
  FileEntry* chunk = new_file_entry(file.entry->root_index, nullptr, file.entry->path);
  chunk->begin_offs = offset;
  chunk->end_offs = offset + size;
  chunk->file_size = static_cast<uint32_t>(file.status.st_size);
  chunk->restricted = mode_is_restricted(file.status.st_mode);
  stats.n_filesys_bytes_scanned += size;
  compute_sha1(scan.digest_context, data, size, chunk->digest);
  compute_xmit_line(chunk, scan.tag);
  chunk->next = *scan.list;
  *scan.list = chunk;
  append_digest_line(writer, chunk);
  stats.n_filesys_chunks_scanned += 1;
}

// Hashes an open file chunk by chunk. Returns 0 or an error number. If a chunk ends exactly at the
// end of the file, an empty chunk follows, because only another read finds the end.
int hash_chunks(const Scan& scan, const ScannedFile& file, int data_file, DigestWriter* writer) {
  uint8_t* data = scan.ctx->data_chunk_buf;
  uint64_t offset = 0;
  bool at_end = false;
  while (!at_end) {
    size_t size;
    beat(kHashing);
    if (!read_chunk(data_file, data, file.status.st_size, offset, &size, &at_end)) return errno;
    if (offset + size > UINT32_MAX) return EFBIG;  // grew beyond 32-bit offsets
    add_chunk(scan, file, data, static_cast<uint32_t>(offset), static_cast<uint32_t>(size), writer);
    offset += size;
  }
  return 0;
}

// Opens a data file. Negative with errno if it cannot be opened or a fault is injected.
int open_data_file(const ScannedFile& file) {
  if (have_error_injection(g_diag_params.fail_scan_path, file.entry->path)) return -1;
  return openat(file.dir_fd, file.name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

// Hashes one regular file and writes its digest cache file.
void scan_file(const Scan& scan, const ScannedFile& file) {
  const char* path = file.entry->path;
  if (static_cast<uint64_t>(file.status.st_size) > UINT32_MAX) {
    // The wire has 32-bit sizes and offsets. Fail rather than make a wrong copy.
    RECORD_SCAN_FAILURE(scan.ctx, 1, "could not read file (%s): %s", strerror(EFBIG), path);
    return;
  }
  const int data_file = open_data_file(file);
  if (data_file < 0) {
    RECORD_SCAN_FAILURE(scan.ctx, 1, "could not open file (%s): %s", strerror(errno), path);
    return;
  }
  DigestWriter writer = start_digest_file(file, data_file);
  const int error = hash_chunks(scan, file, data_file, &writer);
  if (error != 0) {
    RECORD_SCAN_FAILURE(scan.ctx, 1, "could not read file (%s): %s", strerror(error), path);
    writer.error = error;  // removes the incomplete digest cache file
  }
  stats.n_filesys_files_scanned += 1;
  CHECK_CLOSE_AS("fclose(data_file)", close(data_file));  // log text: keep it unchanged
  finish_digest_file(scan.ctx, file, &writer);
}

// A directory that is being listed.
struct ScannedDir {
  int fd;
  const char* path;
  int depth;  // 0 = a root
  bool holds_digests;
};

// The names in a directory, each with its NUL, in readdir order.
struct DirNames {
  std::string names;
  bool hold_digests;
  int error;  // errno of a failed read; the names so far are kept
};

bool is_left_out(const char* name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0 ||
         strncmp(name, kTempPrefix, sizeof(kTempPrefix) - 1) == 0;
}

// Reads all names in one pass: files that a second pass misses would look deleted.
DirNames read_names(DIR* dir) {
  DirNames all = {{}, false, 0};
  errno = 0;
  while (const struct dirent* entry = readdir(dir)) {
    if (!is_left_out(entry->d_name)) all.names.append(entry->d_name, strlen(entry->d_name) + 1);
    all.hold_digests = all.hold_digests || is_digest_name(entry->d_name);
    errno = 0;
  }
  all.error = errno;
  return all;
}

void scan_dir(const Scan& scan, DIR* dir, const char* path, int depth);

// Null with errno if it cannot be opened or is no longer a directory.
DIR* open_subdir(const ScannedFile& subdir) {
  Descriptor fd(open_directory(subdir.dir_fd, subdir.name));
  DIR* dir = fd.is_open() ? fdopendir(fd.get()) : nullptr;
  if (dir != nullptr) fd.release();
  return dir;
}

// Lists a subdirectory.
void scan_subdir(const Scan& scan, const ScannedFile& subdir, int depth) {
  DIR* dir = depth <= kMaxScanDepth ? open_subdir(subdir) : nullptr;
  scan_dir(scan, dir, subdir.entry->path, depth);
}

// Lists one name of a directory.
void scan_name(const Scan& scan, const ScannedDir& dir, const char* name) {
  beat(kListing);
  FileEntry* entry = new_file_entry(scan.root_index, dir.path, name);
  ScannedFile file = {dir.fd, name, entry, {}, scan.tag, dir.holds_digests};
  if (fstatat(dir.fd, name, &file.status, AT_SYMLINK_NOFOLLOW) != 0) {
    RECORD_SCAN_FAILURE(scan.ctx, 1, "call to lstat failed for path (%s): %s", strerror(errno),
                        entry->path);
  } else if (S_ISREG(file.status.st_mode)) {
    if (check_digest_file(scan.ctx, scan.list, file) == DigestLookup::kHashData) {
      scan_file(scan, file);
    }
  } else if (S_ISDIR(file.status.st_mode)) {
    scan_subdir(scan, file, dir.depth + 1);
  }
  free_file_entry(entry);
}

// Lists the directory `path` and everything below it. `dir` is its stream (owned; null with errno
// if it could not be opened).
void scan_dir(const Scan& scan, DIR* dir, const char* path, int depth) {
  if (depth > kMaxScanDepth) {
    RECORD_SCAN_FAILURE(scan.ctx, 1, "maximum directory depth exceeded in '%s'", path);
    return;
  }
  if (dir == nullptr) {
    RECORD_SCAN_FAILURE(scan.ctx, 1, "could not open directory (%s): %s", strerror(errno), path);
    return;
  }
  const DirNames all = read_names(dir);
  const ScannedDir scanned = {dirfd(dir), path, depth, all.hold_digests};
  for (const char* name = all.names.data(); *name != '\0'; name += strlen(name) + 1)
    scan_name(scan, scanned, name);
  if (all.error != 0) {
    RECORD_SCAN_FAILURE(scan.ctx, 1, "failed to read directory (%s): %s", strerror(all.error),
                        path);
  }
  CHECK_CLOSE(closedir(dir));
}

}  // namespace

void scan_replicated_roots(SyncContext* ctx, FileEntry** list, bool requester) {
  sync_directories_again(ctx);
  EVP_MD_CTX* digest_context = EVP_MD_CTX_new();
  CHECK_NOT_NULL(digest_context);
  for (const ScannedRoot& root : kScannedRoots) {
    const Scan scan = {ctx, list, digest_context, root.root_index,
                       requester ? root.requester_tag : root.responder_tag};
    const char* path = root_paths[root.root_index];
    scan_dir(scan, opendir(path), path, 0);
  }
  EVP_MD_CTX_free(digest_context);
  mark_unsynced_chunks(*list);
}
