#include "bench/bare_work.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

constexpr size_t kChunkSize = 65536;
constexpr const char* kRoots[] = {
    "/mnt/part.persistent/replicated_by_active_em", "/var/run/replicated_by_active_em",
    "/mnt/part.persistent/replicated_by_this_em", "/mnt/part.persistent/replicated_by_other_em"};
constexpr char kDigestPrefix[] = ".$SyncDigest$";
constexpr char kEventFile[] = "/var/run/em/events/bare_work";
constexpr size_t kEventSize = 1036;

unsigned char g_chunk[kChunkSize];
EVP_MD_CTX* g_digest_context;

[[noreturn]] void fail(const char* what) {
  perror(what);
  exit(1);
}

std::string directory_of(const std::string& path) {
  return path.substr(0, path.rfind('/') + 1);
}

std::string digest_of(const std::string& path) {
  return directory_of(path) + kDigestPrefix + path.substr(path.rfind('/') + 1);
}

void sync_directory_of(const std::string& path) {
  const int fd = open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0 || fsync(fd) != 0) fail(path.c_str());
  close(fd);
}

void make_directory_of(const std::string& path) {
  const std::string directory = path.substr(0, path.rfind('/'));
  if (mkdir(directory.c_str(), 0755) != 0) {
    if (errno != ENOENT) fail(directory.c_str());
    make_directory_of(directory);
    make_directory_of(path);
    return;
  }
  sync_directory_of(directory);
}

int create(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (fd < 0 && errno == ENOENT) {
    make_directory_of(path);
    fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  }
  if (fd < 0) fail(path.c_str());
  return fd;
}

// Hashes the chunk that was read and, if there is a digest cache file, appends its line.
void hash_chunk(size_t offset, size_t size, FILE* digests) {
  static const EVP_MD* const sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  unsigned char digest[EVP_MAX_MD_SIZE];
  EVP_DigestInit_ex(g_digest_context, sha1, nullptr);
  EVP_DigestUpdate(g_digest_context, g_chunk, size);
  EVP_DigestFinal_ex(g_digest_context, digest, nullptr);
  if (digests == nullptr) return;
  for (int i = 0; i < 20; ++i)
    fprintf(digests, "%02x", digest[i]);
  fprintf(digests, " %08zx %08zx\n", offset, offset + size);
}

void hash_file(int fd, const struct stat& status, FILE* digests) {
  const auto file_size = static_cast<size_t>(status.st_size);
  if (digests != nullptr) {
    fprintf(digests, "Digest-V1 %zu %lld\n", file_size, static_cast<long long>(status.st_mtime));
  }
  size_t offset = 0;
  size_t size;
  do {
    const ssize_t n = read(fd, g_chunk, kChunkSize);
    if (n < 0) fail("reading a file");
    size = static_cast<size_t>(n);
    hash_chunk(offset, size, digests);
    offset += size;
  } while (size == kChunkSize);
}

FILE* create_digests(int directory, int data_fd, const std::string& name) {
  if (fsync(data_fd) != 0) fail("fsync");
  const int fd = openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (fd < 0) fail(name.c_str());
  return fdopen(fd, "w");
}

// Reads the digests of a large file. False if it has none.
bool read_digests(int directory, const std::string& name) {
  const int fd = openat(directory, name.c_str(), O_RDONLY);
  if (fd < 0) return false;
  while (read(fd, g_chunk, kChunkSize) > 0) {
  }
  close(fd);
  return true;
}

void scan_file(int directory, const char* name, const struct stat& status) {
  const bool large = status.st_size > static_cast<off_t>(kChunkSize);
  const std::string digest_name = large ? std::string(kDigestPrefix) + name : "";
  if (large && read_digests(directory, digest_name)) return;
  const int fd = openat(directory, name, O_RDONLY);
  if (fd < 0) fail(name);
  FILE* digests = large ? create_digests(directory, fd, digest_name) : nullptr;
  hash_file(fd, status, digests);
  close(fd);
  if (digests != nullptr) fclose(digests);
}

void scan_directory(int fd) {
  DIR* directory = fdopendir(fd);
  if (directory == nullptr) fail("opening a directory");
  while (const struct dirent* entry = readdir(directory)) {
    const char* name = entry->d_name;
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
    struct stat status;
    if (fstatat(fd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) fail(name);
    if (S_ISDIR(status.st_mode)) {
      scan_directory(openat(fd, name, O_RDONLY | O_DIRECTORY));
    } else if (strncmp(name, kDigestPrefix, sizeof(kDigestPrefix) - 1) != 0) {
      scan_file(fd, name, status);
    }
  }
  closedir(directory);
}

void write_all(int fd, const void* data, size_t size) {
  if (write(fd, data, size) != static_cast<ssize_t>(size)) fail("writing a file");
}

void replace(const std::string& path, const void* data, size_t size) {
  const std::string temporary = directory_of(path) + "TempUpdate_bare_work";
  const int fd = create(temporary);
  write_all(fd, data, size);
  if (fdatasync(fd) != 0 || close(fd) != 0 || rename(temporary.c_str(), path.c_str()) != 0) {
    fail(path.c_str());
  }
  sync_directory_of(path);
}

}  // namespace

void scan_trees() {
  g_digest_context = EVP_MD_CTX_new();
  for (const char* root : kRoots)
    scan_directory(open(root, O_RDONLY | O_DIRECTORY));
  EVP_MD_CTX_free(g_digest_context);
}

void read_part(const char* path, uint32_t offset, void* data, size_t size) {
  const int fd = open(path, O_RDONLY);
  if (fd < 0 || pread(fd, data, size, offset) != static_cast<ssize_t>(size)) fail(path);
  close(fd);
}

void write_whole(const char* path, const void* data, size_t size) {
  unlink(digest_of(path).c_str());
  replace(path, data, size);
}

void write_part(const char* path, uint32_t file_size, uint32_t offset, const void* data,
                size_t size) {
  if (unlink(digest_of(path).c_str()) == 0) sync_directory_of(path);
  const bool created = access(path, F_OK) != 0;
  const int fd = created ? create(path) : open(path, O_WRONLY);
  if (fd < 0) fail(path);
  if (ftruncate(fd, file_size) != 0 || lseek(fd, offset, SEEK_SET) < 0) fail(path);
  write_all(fd, data, size);
  if (fsync(fd) != 0) fail(path);
  close(fd);
  if (created) sync_directory_of(path);
}

void publish(const char* source, const char* target) {
  const int fd = open(source, O_RDONLY);
  if (fd < 0 || fsync(fd) != 0 || rename(source, target) != 0) fail(source);
  close(fd);
  unlink(digest_of(target).c_str());
  sync_directory_of(target);
}

void report_outcome() {
  static const char event[kEventSize] = {};
  replace(kEventFile, event, sizeof event);
}
