#include "tools/tree_listing.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/catalog/roots.h"
#include "tools/output.h"

namespace {

// State of listing one tree.
struct Walk {
  TreeListing* tree;
  time_t since;
  std::vector<std::string>* failures;
  std::vector<uint8_t> buffer;
};

std::string sha256(const void* data, size_t size) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned md_size = 0;
  if (EVP_Digest(data, size, md, &md_size, EVP_sha256(), nullptr) != 1) abort();
  std::string text;
  for (unsigned i = 0; i < md_size; ++i) {
    constexpr char kDigits[] = "0123456789abcdef";
    text += kDigits[md[i] >> 4];
    text += kDigits[md[i] & 15];
  }
  return text;
}

void add_failure(Walk* walk, const char* what, int error, const std::string& path) {
  walk->failures->push_back("could not " + std::string(what) + " (" + strerror(error) +
                            "): " + path);
}

// Reads one chunk. Returns the number of bytes, fewer at the end of the file, or -1 with errno.
ssize_t read_chunk(int fd, std::vector<uint8_t>* buffer) {
  size_t size = 0;
  while (size < buffer->size()) {
    const ssize_t n = read(fd, buffer->data() + size, buffer->size() - size);
    if (n < 0) return -1;
    if (n == 0) break;
    size += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(size);
}

std::string relative_path(const Walk& walk, const std::string& path) {
  return path.substr(strlen(root_paths[walk.tree->root_index]));
}

void add_chunk(Walk* walk, const std::string& path, const struct stat& status, uint64_t offset,
               size_t size) {
  char span[20];
  snprintf(span, sizeof span, " %08x %08x ", static_cast<unsigned>(offset),
           static_cast<unsigned>(offset + size));
  walk->tree->lines.push_back(
      std::string{walk->tree->tag, ' '} + sha256(walk->buffer.data(), size) + span +
      (mode_is_restricted(status.st_mode) ? "P " : "G ") + relative_path(*walk, path));
}

// Lists the chunks of an open file. As in the daemon's listing, a full last chunk is followed by an
// empty one. Returns 0 or an error number.
int list_chunks(Walk* walk, int fd, const std::string& path) {
  struct stat status;
  if (fstat(fd, &status) != 0) return errno;
  if (status.st_ctime >= walk->since) walk->tree->fresh.insert(relative_path(*walk, path));
  if (status.st_size > static_cast<off_t>(UINT32_MAX)) return EFBIG;  // the daemon refuses it, too
  uint64_t offset = 0;
  size_t size = kChunkSize;
  while (size == kChunkSize) {
    const ssize_t n = read_chunk(fd, &walk->buffer);
    if (n < 0) return errno;
    size = static_cast<size_t>(n);
    if (offset + size > UINT32_MAX) return EFBIG;  // the file has grown
    add_chunk(walk, path, status, offset, size);
    offset += size;
    walk->tree->bytes += size;
    show_progress("reading " + walk->tree->name + ": " + std::to_string(walk->tree->files) +
                  " files, " + std::to_string(walk->tree->bytes >> 20) + " MiB");
  }
  return 0;
}

void list_file(Walk* walk, int dir_fd, const char* name, const std::string& path) {
  const int fd = openat(dir_fd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  int error = errno;
  if (fd >= 0) {
    error = list_chunks(walk, fd, path);
    close(fd);
    ++walk->tree->files;
  }
  if (error != 0 && error != ENOENT) add_failure(walk, "read file", error, path);
}

void list_dir(Walk* walk, int parent_fd, const char* name, const std::string& path, int depth);

// Lists a name, or skips it, like the daemon.
void list_name(Walk* walk, int dir_fd, const char* name, const std::string& path, int depth) {
  struct stat status;
  if (strncmp(name, kTempPrefix, strlen(kTempPrefix)) == 0) return;
  if (fstatat(dir_fd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) add_failure(walk, "look at", errno, path);
  } else if (S_ISDIR(status.st_mode)) {
    list_dir(walk, dir_fd, name, path, depth + 1);
  } else if (S_ISREG(status.st_mode) && strncmp(name, kDigestPrefix, strlen(kDigestPrefix)) != 0) {
    list_file(walk, dir_fd, name, path);
  }
}

// Does not follow symlinks, except for the root itself (depth 0).
void list_dir(Walk* walk, int parent_fd, const char* name, const std::string& path, int depth) {
  if (depth > kMaxScanDepth) return add_failure(walk, "list directory", ENAMETOOLONG, path);
  const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (depth > 0 ? O_NOFOLLOW : 0);
  const int fd = openat(parent_fd, name, flags);
  DIR* dir = fd >= 0 ? fdopendir(fd) : nullptr;
  if (dir == nullptr) {
    if (errno != ENOENT || depth == 0) add_failure(walk, "open directory", errno, path);
    if (fd >= 0) close(fd);
    return;
  }
  errno = 0;
  while (const dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
      list_name(walk, fd, entry->d_name, path + "/" + entry->d_name, depth);
    errno = 0;
  }
  if (errno != 0) add_failure(walk, "read directory", errno, path);
  closedir(dir);
}

// Sorts the lines and computes their digest.
void finish_tree(TreeListing* tree) {
  std::sort(tree->lines.begin(), tree->lines.end(), [](const auto& a, const auto& b) {
    const int order = a.compare(kListPathColumn, a.npos, b, kListPathColumn, b.npos);
    return order != 0 ? order < 0 : a < b;
  });
  std::string all;
  for (const std::string& line : tree->lines)
    all.append(line.c_str(), line.size() + 1);
  tree->digest = sha256(all.data(), all.size());
}

void list_tree(TreeListing* tree, time_t since, std::vector<std::string>* failures) {
  Walk walk = {tree, since, failures, std::vector<uint8_t>(kChunkSize)};
  std::string path = root_paths[tree->root_index];
  path.pop_back();
  list_dir(&walk, AT_FDCWD, path.c_str(), path, 0);
  finish_tree(tree);
}

}  // namespace

std::vector<TreeListing> list_trees(unsigned em, time_t since, std::vector<std::string>* failures) {
  std::vector<TreeListing> trees(4);
  const uint32_t em1_root = em == 1 ? kThisEmRoot : kOtherEmRoot;
  const uint32_t em2_root = em == 1 ? kOtherEmRoot : kThisEmRoot;
  trees[0] = {"active", kActivePersistentRoot, 'A', 0, 0, {}, {}, ""};
  trees[1] = {"volatile", kActiveVolatileRoot, 'V', 0, 0, {}, {}, ""};
  trees[2] = {"em1", em1_root, '1', 0, 0, {}, {}, ""};
  trees[3] = {"em2", em2_root, '2', 0, 0, {}, {}, ""};
  for (TreeListing& tree : trees)
    list_tree(&tree, since, failures);
  clear_progress();
  return trees;
}
