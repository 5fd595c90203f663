#include "redundancy_health/catalog/unsynced.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <iterator>
#include <map>
#include <set>
#include <string>

#include "platform/descriptor.h"
#include "platform/em.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/catalog/scan_failure.h"

namespace {

constexpr size_t kDigestPosition = 2;  // in a listing line
constexpr size_t kDigestSize = 40;

// For each path, the offsets of the chunks that were written again and synced.
std::map<std::string, std::set<uint32_t>> g_files;
std::set<std::string> g_directories;

// Whether the tree is a copy that the peer sends.
bool is_copy(uint32_t root_index, bool active) {
  return root_index == kOtherEmRoot || (is_shared_root(root_index) && !active);
}

bool is_to_come_again(const FileEntry* entry) {
  const auto file = g_files.find(entry->path);
  return file != g_files.end() && !file->second.contains(entry->begin_offs);
}

// Returns 0 or an error number. A directory that no longer exists needs no sync.
int sync_directory(const char* path) {
  const Descriptor fd(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.is_open()) return errno == ENOENT || errno == ENOTDIR || errno == ELOOP ? 0 : errno;
  return fsync(fd.get()) == 0 ? 0 : errno;
}

}  // namespace

void note_unsynced_file(const char* path) {
  g_files[path].clear();
}

void note_synced_chunk(const char* path, uint32_t begin_offs, uint32_t file_size) {
  const auto file = g_files.find(path);
  if (file == g_files.end()) return;
  std::set<uint32_t>* synced = &file->second;
  synced->insert(begin_offs);
  const auto count = std::distance(synced->begin(), synced->upper_bound(file_size));
  if (count > static_cast<ptrdiff_t>(file_size / kChunkSize)) g_files.erase(file);
}

void forget_unsynced_file(const char* path) {
  if (!g_files.empty()) g_files.erase(path);
}

bool file_is_unsynced(const char* path) {
  return !g_files.empty() && g_files.contains(path);
}

bool any_file_is_unsynced() {
  return !g_files.empty();
}

void mark_unsynced_chunks(FileEntry* list) {
  if (g_files.empty()) return;
  const bool active = this_em_is_active();
  for (FileEntry* entry = list; entry != nullptr; entry = entry->next) {
    if (is_copy(entry->root_index, active) && is_to_come_again(entry))
      memset(entry->xmit_line + kDigestPosition, '0', kDigestSize);
  }
}

int sync_received_name(int dir_fd) {
  if (fsync(dir_fd) == 0) return 0;
  note_unsynced_directory(dir_fd);
  return -1;
}

void note_unsynced_directory(int dir_fd) {
  const int error = errno;
  char link_name[40];
  char target[PATH_MAX];
  snprintf(link_name, sizeof(link_name), "/proc/self/fd/%d", dir_fd);
  const ssize_t length = readlink(link_name, target, sizeof(target));
  if (length > 0) g_directories.insert(std::string(target, static_cast<size_t>(length)));
  errno = error;
}

void sync_directories_again(SyncContext* ctx) {
  for (auto directory = g_directories.begin(); directory != g_directories.end();) {
    const int error = sync_directory(directory->c_str());
    if (error == 0) {
      directory = g_directories.erase(directory);
      continue;
    }
    RECORD_SCAN_FAILURE(ctx, 1, "could not sync directory (%s): %s", strerror(error),
                        directory->c_str());
    ++directory;
  }
}

void forget_unsynced() {
  g_files.clear();
  g_directories.clear();
}
