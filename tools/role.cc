#include <errno.h>
#include <fcntl.h>
#include <mntent.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "client/cluster_sync.h"
#include "redundancy_health/catalog/roots.h"
#include "tools/commands.h"
#include "tools/output.h"

namespace {

constexpr char kActiveMark[] = "/var/run/em/active";
constexpr char kPersistent[] = "/mnt/part.persistent";

// Becoming active is refused if it would delete more files of a tree than this, and more than half
// of them.
constexpr uint32_t kFewFiles = 10;

// A longer comparison hangs, because an exchange without progress ends after 10 s. A failover must
// not wait for it.
constexpr int kLookMs = 12 * 1000;

bool make_mark() {
  mkdir("/var/run/em", 0755);  // may exist already
  const int fd = open(kActiveMark, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  return fd >= 0 && close(fd) == 0;
}

bool remove_mark() {
  return unlink(kActiveMark) == 0 || errno == ENOENT;
}

bool is_directory(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

// Whether the mount table at `path` contains the directory of the persistent trees.
bool names_persistent(const char* path) {
  FILE* table = setmntent(path, "re");
  bool named = false;
  while (const mntent* entry = table != nullptr ? getmntent(table) : nullptr)
    named = named || strcmp(entry->mnt_dir, kPersistent) == 0;
  if (table != nullptr) endmntent(table);
  return named;
}

// What is wrong with this EM's disk; empty if nothing is.
std::string look_at_disk() {
  if (names_persistent("/etc/fstab") && !names_persistent("/proc/self/mounts"))
    return std::string(kPersistent) + " is in /etc/fstab, but nothing is mounted there";
  for (const char* root : root_paths) {
    if (!is_directory(root)) return std::string(root) + " is missing";
  }
  return "";
}

// What the other EM would lose; empty if that is little or unknown.
std::string look_at_other_em(const Options& options) {
  cluster_sync_tree trees[CLUSTER_SYNC_TREES];
  cluster_sync_result result;
  const bool has_limit = options.given.find('t') != std::string::npos;
  const int error =
      cluster_sync_compare(options.socket.c_str(), has_limit ? options.timeout_ms : kLookMs, trees,
                           nullptr, nullptr, &result);
  if (error != 0) {
    const char* reason = error == ECANCELED ? result.reason : cluster_sync_strerror(error);
    fprintf(stderr, "cluster_sync_ctl: not compared with the other EM: %s\n",
            printable(reason).c_str());
    return "";
  }
  for (const cluster_sync_tree& tree : {trees[0], trees[1]}) {  // the shared trees
    if (tree.only_there > kFewFiles && tree.only_there > tree.there / 2)
      return "becoming active would delete " + std::to_string(tree.only_there) + " of " +
             std::to_string(tree.there) + " files that the other EM has in '" + tree.name + "'";
  }
  return "";
}

}  // namespace

int set_role(const Options& options, const Words& words) {
  const bool active = words[0] == "active";
  if (!active && words[0] != "standby") return usage_error("no such role: " + words[0]);
  if (active && !options.force && access(kActiveMark, F_OK) != 0) {
    std::string reason = look_at_disk();
    if (reason.empty()) reason = look_at_other_em(options);
    if (!reason.empty())
      return report_error(options, reason + "; use --force to make this EM active anyway", kFailed);
  }
  if (!(active ? make_mark() : remove_mark()))
    return report_error(options, std::string(kActiveMark) + ": " + strerror(errno), kFailed);
  printf(options.json ? "{\"role\":\"%s\"}\n" : "this EM is %s\n", words[0].c_str());
  return kDone;
}
