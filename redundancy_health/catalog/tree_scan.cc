#include "redundancy_health/catalog/tree_scan.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <string.h>
#include <sys/stat.h>

#include "redundancy_health/catalog/confined_path.h"
#include "redundancy_health/catalog/digest_file.h"
#include "redundancy_health/catalog/scan_failure.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/statistics.h"

namespace {

constexpr int kMaxDepth = 16;  // a root has depth 0
constexpr char kTempPrefix[] = "TempUpdate_";

struct ScannedRoot {
  uint32_t root_index;
  char requester_tag;
  char responder_tag;
};

// In scan order. 'P' is the responder's own tree on both sides, 'Q' the requester's.
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
  EVP_MD_CTX* digest_context;  // serves the whole listing
  uint32_t root_index;
  char tag;
};

// An algorithm that was fetched once is not looked up at every init.
const EVP_MD* sha1_algorithm() {
  static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  return algorithm;
}

// Writes the 40 lower-case hexadecimal digits of the SHA-1 of `data` and a NUL to `out`.
void compute_sha1(EVP_MD_CTX* digest_context, const void* data, size_t length, char* out) {
  static const char digits[] = "0123456789abcdef";
  constexpr unsigned digest_size = 20;
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned md_size = 0;
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

// Hashes the next chunk of an open file and pushes its entry. False when the read failed, with
// errno set; `*offset` moves behind the chunk.
bool scan_chunk(const Scan& scan, const FileEntry* entry, const struct stat& status,
                FILE* data_file, uint64_t* offset, DigestWriter* writer) {
  uint8_t* data = scan.ctx->data_chunk_buf;
  const size_t size = fread(data, 1, kChunkSize, data_file);
  if (ferror(data_file)) return false;
  if (*offset + size > UINT32_MAX) {  // it grew past what the formats can carry
    errno = EFBIG;
    return false;
  }
  FileEntry* chunk = new_file_entry(entry->root_index, nullptr, entry->path);
  chunk->begin_offs = static_cast<uint32_t>(*offset);
  *offset += size;
  chunk->end_offs = static_cast<uint32_t>(*offset);
  chunk->file_size = static_cast<uint32_t>(status.st_size);
  chunk->restricted = mode_is_restricted(status.st_mode);
  stats.n_filesys_bytes_scanned += static_cast<int64_t>(size);
  compute_sha1(scan.digest_context, data, size, chunk->digest);
  compute_xmit_line(chunk, scan.tag);
  chunk->next = *scan.list;
  *scan.list = chunk;
  append_digest_line(writer, chunk);
  stats.n_filesys_chunks_scanned += 1;
  return true;
}

FILE* open_data_file(const char* path) {
  if (have_error_injection(g_diag_params.fail_scan_path, path)) return nullptr;
  FILE* data_file = open_stream(path, O_RDONLY, 0, "rb");
  if (data_file != nullptr) setvbuf(data_file, nullptr, _IONBF, 0);
  return data_file;
}

// Hashes one regular file, chunk by chunk. A chunk that ends at the end of the file is followed by
// an empty one, because only a read tells the end.
void scan_file(const Scan& scan, const FileEntry* entry, const struct stat& status) {
  if (static_cast<uint64_t>(status.st_size) > UINT32_MAX) {
    // Sizes and offsets have 32 bits on the wire: no copy at all is better than a wrong one.
    RECORD_SCAN_FAILURE(scan.ctx, 1, "could not read file (%s): %s", strerror(EFBIG), entry->path);
    return;
  }
  FILE* data_file = open_data_file(entry->path);
  if (data_file == nullptr) {
    RECORD_SCAN_FAILURE(scan.ctx, 1, "could not open file (%s): %s", strerror(errno), entry->path);
    return;
  }
  DigestWriter writer = start_digest_file(entry->path, status);
  uint64_t offset = 0;
  do {
    if (!scan_chunk(scan, entry, status, data_file, &offset, &writer)) {
      writer.error = errno;  // an incomplete digest cache file must not stay
      RECORD_SCAN_FAILURE(scan.ctx, 1, "could not read file (%s): %s", strerror(errno),
                          entry->path);
      break;
    }
  } while (!feof(data_file));
  stats.n_filesys_files_scanned += 1;
  CHECK_CLOSE(fclose(data_file));
  finish_digest_file(scan.ctx, &writer);
}

void scan_dir(const Scan& scan, const char* path, int depth);

// Lists one name of a directory.
void scan_name(const Scan& scan, const char* dir_path, int depth, const char* name) {
  FileEntry* entry = new_file_entry(scan.root_index, dir_path, name);
  struct stat status;
  if (lstat(entry->path, &status) != 0) {
    RECORD_SCAN_FAILURE(scan.ctx, 1, "call to lstat failed for path (%s): %s", strerror(errno),
                        entry->path);
  } else if (S_ISREG(status.st_mode)) {
    if (check_digest_file(scan.ctx, scan.list, entry, dir_path, name, scan.tag, status) ==
        DigestLookup::kHashData) {
      scan_file(scan, entry, status);
    }
  } else if (S_ISDIR(status.st_mode)) {
    scan_dir(scan, entry->path, depth + 1);
  }
  free_file_entry(entry);
}

void scan_dir(const Scan& scan, const char* path, int depth) {
  if (depth > kMaxDepth) {
    RECORD_SCAN_FAILURE(scan.ctx, 1, "maximum directory depth exceeded in '%s'", path);
    return;
  }
  DIR* dir = opendir(path);
  if (dir == nullptr) {
    RECORD_SCAN_FAILURE(scan.ctx, 1, "could not open directory (%s): %s", strerror(errno), path);
    return;
  }
  for (;;) {
    errno = 0;
    const struct dirent* name = readdir(dir);
    if (name == nullptr) {
      if (errno != 0) {
        RECORD_SCAN_FAILURE(scan.ctx, 1, "failed to read directory (%s): %s", strerror(errno),
                            path);
      }
      break;
    }
    if (strcmp(name->d_name, ".") == 0 || strcmp(name->d_name, "..") == 0) continue;
    if (strncmp(name->d_name, kTempPrefix, sizeof(kTempPrefix) - 1) == 0) continue;
    scan_name(scan, path, depth, name->d_name);
  }
  CHECK_CLOSE(closedir(dir));
}

}  // namespace

void scan_replicated_roots(SyncContext* ctx, FileEntry** list, bool requester) {
  EVP_MD_CTX* digest_context = EVP_MD_CTX_new();
  CHECK_NOT_NULL(digest_context);
  for (const ScannedRoot& root : kScannedRoots) {
    const Scan scan = {ctx, list, digest_context, root.root_index,
                       requester ? root.requester_tag : root.responder_tag};
    scan_dir(scan, root_paths[root.root_index], 0);
  }
  EVP_MD_CTX_free(digest_context);
}
