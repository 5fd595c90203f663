// How fast the scan hashes large files, compared with a plain loop of read(2) and SHA-1 over the
// same files, alternating in one process. Works in a private mount namespace, on trees in memory,
// so no disk is measured. Prints one line per round: MB/s, MB/s, ratio.
//   scan_rate [MEBIBYTES] [ROUNDS]

#include <fcntl.h>
#include <openssl/evp.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "redundancy_health/catalog/digest_file.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/catalog/tree_scan.h"

namespace {

constexpr size_t kMebibyte = 1 << 20;
constexpr size_t kFileSize = 16 * kMebibyte;

double now() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

bool make_roots() {
  if (unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/mnt", "tmpfs", 0, "") != 0 || mkdir("/mnt/part.persistent", 0755) != 0 ||
      mount("tmpfs", "/run", "tmpfs", 0, "") != 0) {
    return false;
  }
  return std::all_of(std::begin(root_paths), std::end(root_paths),
                     [](const char* path) { return mkdir(path, 0755) == 0; });
}

std::vector<std::string> make_files(size_t mebibytes) {
  std::vector<char> content(kFileSize);
  for (size_t i = 0; i < content.size(); ++i)
    content[i] = static_cast<char>(i * 2654435761u >> 24);
  std::vector<std::string> paths;
  for (size_t i = 0; i < mebibytes * kMebibyte / kFileSize; ++i) {
    paths.push_back(root_paths[kActivePersistentRoot] + std::to_string(i));
    FILE* f = fopen(paths.back().c_str(), "w");
    if (f == nullptr || fwrite(content.data(), 1, content.size(), f) != content.size() ||
        fclose(f) != 0) {
      perror("scan_rate: writing a file");
      exit(1);
    }
  }
  return paths;
}

double scan_seconds() {
  FileEntry* list = nullptr;
  const double begin = now();
  scan_replicated_roots(&g_context, &list, true);
  const double seconds = now() - begin;
  free_file_list(&list);
  return seconds;
}

// The plain loop: the same files, read and hashed chunk by chunk.
double loop_seconds(const std::vector<std::string>& paths) {
  EVP_MD* algorithm = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  static unsigned char chunk[kChunkSize];
  unsigned char digest[EVP_MAX_MD_SIZE];
  const double begin = now();
  for (const std::string& path : paths) {
    const int fd = open(path.c_str(), O_RDONLY);
    ssize_t n;
    while ((n = read(fd, chunk, sizeof(chunk))) > 0) {
      EVP_DigestInit_ex(context, algorithm, nullptr);
      EVP_DigestUpdate(context, chunk, static_cast<size_t>(n));
      EVP_DigestFinal_ex(context, digest, nullptr);
    }
    close(fd);
  }
  const double seconds = now() - begin;
  EVP_MD_CTX_free(context);
  EVP_MD_free(algorithm);
  return seconds;
}

void forget_digests(const std::string& path) {
  char* digest_path = compute_digest_path(path.c_str());
  unlink(digest_path);
  free(digest_path);
}

}  // namespace

int main(int argc, char** argv) {
  const size_t mebibytes = argc > 1 ? static_cast<size_t>(atoi(argv[1])) : 512;
  const int rounds = argc > 2 ? atoi(argv[2]) : 5;
  if (!make_roots()) {
    perror("scan_rate: making the roots (needs root)");
    return 1;
  }
  init_context(&g_context);
  const std::vector<std::string> paths = make_files(mebibytes);
  const size_t bytes = paths.size() * kFileSize;
  for (int round = 0; round < rounds; ++round) {
    for (const std::string& path : paths)
      forget_digests(path);
    const double scan = scan_seconds();
    const double loop = loop_seconds(paths);
    const double mb = static_cast<double>(bytes) / 1e6;
    printf("scan %7.1f MB/s  loop %7.1f MB/s  ratio %.3f\n", mb / scan, mb / loop, loop / scan);
  }
  return g_context.cpg_result.success ? 0 : 1;
}
