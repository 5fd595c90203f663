#include "redundancy_health/transfer/replaced_files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/descriptor.h"
#include "redundancy_health/catalog/kept_set.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/state_report.h"

namespace {

constexpr char kCopying[] = "copying";  // next to the sets: the copy in progress
constexpr uint64_t kBlock = 4096;
constexpr uint64_t kDroppedShare = 64;  // fraction of the limit that is removed at a time
constexpr uint64_t kCopiedShare = 4;  // files larger than this fraction of the limit are not copied
constexpr size_t kCopyPiece = size_t{1} << 20;
constexpr int64_t kLongestCopy = 3000;  // ms; after 10 s the peer ends the exchange

// A set of the running exchange.
struct OpenSet {
  uint32_t number;
  std::string name;
};

struct Keeping {
  Descriptor dir;    // open during an exchange that keeps something: the partition can be unmounted
  dev_t device = 0;  // of the directory whose sets are known
  ino_t inode = 0;
  uint64_t limit = 0;                    // bytes
  uint64_t total = 0;                    // of the kept files
  std::map<uint32_t, std::string> sets;  // names by number, so oldest first
  uint32_t next_number = 1;

  // Of the running exchange.
  uint32_t first_number = 1;  // of its sets
  std::map<std::pair<uint32_t, KeptKind>, OpenSet> open_sets;
  std::set<std::string> begun;  // paths of files that were kept or are written in place
  std::string last;             // the file kept last, or empty
  uint64_t last_charge = 0;
  uint32_t n_failed = 0;
  int first_error = 0;
  std::string first_failed;
};
Keeping g_keeping;

// The size of a file in whole blocks, at least one.
uint64_t charge_of(const struct stat& status) {
  const auto size = static_cast<uint64_t>(status.st_size);
  return size == 0 ? kBlock : (size + kBlock - 1) / kBlock * kBlock;
}

bool disk_is_full(int error) {
  return error == ENOSPC || error == EDQUOT;
}

void note_not_kept(const char* path, int error) {
  if (g_keeping.n_failed++ != 0) return;
  g_keeping.first_error = error;
  g_keeping.first_failed = path;
}

// Calls `take(dir_fd, name, charge)` for each file below a directory until it returns false.
// Removes empty directories. Returns whether all files were visited.
using Take = std::function<bool(int dir_fd, const char* name, uint64_t charge)>;
bool walk(int dir_fd, const char* name, const Take& take) {
  Descriptor fd(open_directory(dir_fd, name));
  DIR* dir = fd.is_open() ? fdopendir(fd.get()) : nullptr;
  if (dir == nullptr) return true;
  fd.release();
  bool more = true;
  while (const struct dirent* entry = more ? readdir(dir) : nullptr) {
    const char* below = entry->d_name;
    struct stat status;
    if (strcmp(below, ".") == 0 || strcmp(below, "..") == 0 ||
        fstatat(dirfd(dir), below, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    more = S_ISDIR(status.st_mode) ? walk(dirfd(dir), below, take)
                                   : take(dirfd(dir), below, charge_of(status));
  }
  closedir(dir);
  unlinkat(dir_fd, name, AT_REMOVEDIR);
  return more;
}

// Removes the oldest files until `wanted` bytes are freed, but none of the sets numbered `end` or
// higher.
void drop(uint64_t wanted, uint32_t end) {
  uint64_t dropped = 0;
  const Take unlink_one = [&](int dir_fd, const char* name, uint64_t charge) {
    if (unlinkat(dir_fd, name, 0) == 0) dropped += charge;
    return dropped < wanted;
  };
  auto& sets = g_keeping.sets;
  while (dropped < wanted && !sets.empty() && sets.begin()->first < end) {
    const bool all_seen = walk(g_keeping.dir.get(), sets.begin()->second.c_str(), unlink_one);
    if (all_seen) sets.erase(sets.begin());
  }
  g_keeping.total -= dropped < g_keeping.total ? dropped : g_keeping.total;
}

// Makes room for a file, but never removes files of the same exchange. Returns 0 or an error
// number.
int make_room(uint64_t charge) {
  const uint64_t limit = g_keeping.limit;
  if (charge > limit) return EFBIG;
  if (g_keeping.total + charge <= limit) return 0;
  drop(g_keeping.total + charge - limit + limit / kDroppedShare, g_keeping.first_number);
  return g_keeping.total + charge <= limit ? 0 : EDQUOT;
}

uint64_t limit_of_environment() {
  const char* text = getenv("KEEP_REPLACED_MIB");
  const long mib = text == nullptr ? 0 : strtol(text, nullptr, 10);
  return mib > 0 ? static_cast<uint64_t>(mib) << 20 : 0;
}

// Opens the directory, and creates it if it is missing. Fails if it belongs to another user.
// Returns 0 or an error number.
int open_own_directory(Descriptor* dir) {
  if (mkdir(kKeptDirectory, 0700) != 0 && errno != EEXIST) return errno;
  Descriptor fd(open(kKeptDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!fd.is_open() || fstat(fd.get(), &status) != 0) return errno;
  if (status.st_uid != geteuid()) return EPERM;
  if ((status.st_mode & 07777) != 0700 && fchmod(fd.get(), 0700) != 0) return errno;
  *dir = std::move(fd);
  return 0;
}

// Finds the sets of earlier exchanges and adds up their files.
void find_sets() {
  g_keeping.sets.clear();
  g_keeping.total = 0;
  Descriptor fd(open_directory(g_keeping.dir.get(), "."));
  DIR* dir = fd.is_open() ? fdopendir(fd.get()) : nullptr;
  if (dir == nullptr) return;
  fd.release();
  while (const struct dirent* entry = readdir(dir)) {
    KeptSet set;
    if (parse_kept_set_name(entry->d_name, &set)) g_keeping.sets[set.number] = entry->d_name;
  }
  closedir(dir);
  for (const auto& [number, name] : g_keeping.sets) {
    walk(g_keeping.dir.get(), name.c_str(), [](int, const char*, uint64_t charge) {
      g_keeping.total += charge;
      return true;
    });
    g_keeping.next_number = number + 1;
  }
  g_keeping.first_number = g_keeping.next_number;
}

// Returns 0 or an error number.
int open_directory_once() {
  if (g_keeping.dir.is_open()) return 0;
  const int error = open_own_directory(&g_keeping.dir);
  struct stat status;
  if (error != 0 || fstat(g_keeping.dir.get(), &status) != 0) return error != 0 ? error : errno;
  if (status.st_dev == g_keeping.device && status.st_ino == g_keeping.inode) return 0;
  g_keeping.device = status.st_dev;
  g_keeping.inode = status.st_ino;
  find_sets();
  LOG(6, "Keeping replaced files: %u of %u MiB are used",
      static_cast<unsigned>(g_keeping.total >> 20), static_cast<unsigned>(g_keeping.limit >> 20));
  return 0;
}

// Whether to keep a file of this tree.
bool keeps(uint32_t root_index, const char* path) {
  g_keeping.last.clear();
  g_keeping.limit = limit_of_environment();
  if (g_keeping.limit == 0 || root_index >= kKeptTrees) return false;
  const int error = open_directory_once();
  if (error != 0) note_not_kept(path, error);
  return error == 0;
}

OpenSet* open_set(uint32_t root_index, KeptKind kind) {
  OpenSet* set = &g_keeping.open_sets[{root_index, kind}];
  if (set->name.empty()) {
    set->number = g_keeping.next_number++;
    set->name = kept_set_name({set->number, time(nullptr), root_index, kind});
  }
  return set;
}

int make_parents(const std::string& target) {
  for (size_t slash = target.find('/'); slash != std::string::npos;
       slash = target.find('/', slash + 1)) {
    if (mkdirat(g_keeping.dir.get(), target.substr(0, slash).c_str(), 0700) != 0 && errno != EEXIST)
      return errno;
  }
  return 0;
}

// Puts a file in place with `bring(target)`, which returns 0 or -1 with errno. Creates missing
// directories. Returns 0 or an error number.
template <typename Bring>
int bring_to(const std::string& target, const Bring& bring) {
  if (bring(target.c_str()) == 0) return 0;
  if (errno != ENOENT) return errno;
  const int error = make_parents(target);
  if (error != 0) return error;
  return bring(target.c_str()) == 0 ? 0 : errno;
}

// Puts a file into the exchange's set for the tree. If the disk is full, removes older kept files.
template <typename Bring>
int bring_into_set(uint32_t root_index, const char* path, KeptKind kind, uint64_t charge,
                   const Bring& bring) {
  const OpenSet* set = open_set(root_index, kind);
  const std::string target = set->name + "/" + (path + strlen(root_paths[root_index]));
  if (sizeof kKeptDirectory + target.size() >= PATH_MAX) return ENAMETOOLONG;
  int error;
  do {
    error = bring_to(target, bring);
  } while (disk_is_full(error) && drop_kept());
  if (error != 0) return error;
  g_keeping.sets.emplace(set->number, set->name);
  g_keeping.total += charge;
  g_keeping.last = target;
  g_keeping.last_charge = charge;
  return 0;
}

// Keeps a regular file by adding a link to it.
void keep_link(uint32_t root_index, const char* path, int dir_fd, const char* name, KeptKind kind) {
  struct stat status;
  if (is_digest_name(name) || fstatat(dir_fd, name, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
      !S_ISREG(status.st_mode)) {
    return;
  }
  const uint64_t charge = charge_of(status);
  int error = make_room(charge);
  if (error == 0) {
    error = bring_into_set(root_index, path, kind, charge, [&](const char* target) {
      return linkat(dir_fd, name, g_keeping.dir.get(), target, 0);
    });
  }
  // An existing one is from before the exchange.
  if (error != 0 && error != EEXIST) note_not_kept(path, error);
}

// Writes a part of a file. If the disk is full, removes older kept files. Returns 0 or an error
// number.
int write_piece(int fd, off_t offset, const void* data, size_t size) {
  int error;
  do {
    error = lseek(fd, offset, SEEK_SET) < 0 ? errno : write_fully(fd, data, size);
  } while (disk_is_full(error) && drop_kept());
  return error;
}

// Returns 0 or an error number: ETIME if it takes too long.
int copy_pieces(int from, int to) {
  const int64_t deadline = get_uptime_ms() + kLongestCopy;
  std::vector<char> piece(kCopyPiece);
  for (off_t offset = 0;;) {
    beat(kWriting);
    const ssize_t n = pread(from, piece.data(), piece.size(), offset);
    if (n <= 0) return n == 0 ? 0 : errno;
    const int error = write_piece(to, offset, piece.data(), static_cast<size_t>(n));
    if (error != 0) return error;
    offset += n;
    if (get_uptime_ms() > deadline) return ETIME;
  }
}

// Clones or copies an open file next to the sets. Returns 0 or an error number. The copy is synced
// before it gets its name in a set, because half a copy would look like the file.
int copy_aside(int fd, mode_t mode) {
  constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_DSYNC | O_CLOEXEC;
  const Descriptor copy(openat(g_keeping.dir.get(), kCopying, flags, 0600));
  if (!copy.is_open() || fchmod(copy.get(), mode & 0777) != 0) return errno;
  return ioctl(copy.get(), FICLONE, fd) == 0 ? 0 : copy_pieces(fd, copy.get());
}

// Keeps a clone or a copy of an open file. Returns 0 or an error number.
int keep_copy(uint32_t root_index, const char* path, int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) return errno;
  const uint64_t charge = charge_of(status);
  if (charge > g_keeping.limit / kCopiedShare) return EFBIG;
  int error = make_room(charge);
  if (error == 0) error = copy_aside(fd, status.st_mode);
  if (error != 0) return error;
  return bring_into_set(root_index, path, kReplaced, charge, [](const char* target) {
    return renameat(g_keeping.dir.get(), kCopying, g_keeping.dir.get(), target);
  });
}

}  // namespace

int unlink_keeping(uint32_t root_index, const char* path, int dir_fd, const char* name) {
  if (keeps(root_index, path)) keep_link(root_index, path, dir_fd, name, kDeleted);
  if (unlinkat(dir_fd, name, 0) == 0) return 0;
  const int error = errno;
  take_back_kept(path);
  return error;
}

void keep_replaced(uint32_t root_index, const char* path, const PinnedPath& file) {
  // After a failed sync the change is repeated: by then the new file is there.
  if (!keeps(root_index, path) || g_keeping.begun.contains(path)) return;
  keep_link(root_index, path, file.dir_fd(), file.name, kReplaced);
  if (!g_keeping.last.empty()) g_keeping.begun.insert(path);
}

void keep_before_chunk(uint32_t root_index, const char* path, const PinnedPath& file, int fd,
                       bool renewed) {
  if (!keeps(root_index, path) || !g_keeping.begun.insert(path).second || fd < 0) return;
  if (renewed) return keep_link(root_index, path, file.dir_fd(), file.name, kReplaced);
  const int error = keep_copy(root_index, path, fd);
  if (error == 0) return;
  unlinkat(g_keeping.dir.get(), kCopying, 0);
  note_not_kept(path, error);
}

void take_back_kept(const char* path) {
  if (g_keeping.last.empty()) return;
  if (unlinkat(g_keeping.dir.get(), g_keeping.last.c_str(), 0) == 0)
    g_keeping.total -= g_keeping.last_charge;
  g_keeping.last.clear();
  g_keeping.begun.erase(path);
}

bool drop_kept() {
  if (g_keeping.sets.empty() || open_directory_once() != 0) return false;
  drop(g_keeping.limit / kDroppedShare, UINT32_MAX);
  return true;
}

void close_kept() {
  if (g_keeping.n_failed != 0) {
    LOG(4, "Did not keep %u files that were deleted or replaced, first (%s): %s",
        g_keeping.n_failed, strerror(g_keeping.first_error), g_keeping.first_failed.c_str());
  }
  g_keeping.first_number = g_keeping.next_number;
  g_keeping.dir.reset();
  g_keeping.open_sets.clear();
  g_keeping.begun.clear();
  g_keeping.last.clear();
  g_keeping.n_failed = 0;
}

void open_kept() {
  keeps(kActivePersistentRoot, kKeptDirectory);
  g_keeping.dir.reset();
}

void forget_kept() {
  g_keeping = {};
}
