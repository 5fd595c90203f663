#include "tests/fuzz/sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/em.h"
#include "platform/util.h"
#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/catalog/tree_scan.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/sync_context.h"
#include "redundancy_health/transfer/exchange_notes.h"
#include "tests/unit/scripted_cpg.h"

namespace fs = std::filesystem;

namespace {

const fs::path kCanary = "/mnt/canary";
constexpr char kActiveFile[] = "/run/em/active";

std::string g_planted;  // everything outside the roots
unsigned g_runs;
unsigned g_runs_per_look;  // also how often trees are planted
bool g_plants_trees;

void require(bool done, const char* what) {
  if (done) return;
  perror(what);
  exit(1);
}

void write_text(const std::string& path, const std::string& text) {
  require(static_cast<bool>(std::ofstream(path) << text << std::flush), path.c_str());
}

std::string nanoseconds(const timespec& time) {
  return " " + std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec);
}

// What exists outside the roots, one line per name; of a root itself only its name.
std::string world_outside() {
  std::string world;
  for (const char* top : {"/mnt", "/run"}) {
    for (auto entry = fs::recursive_directory_iterator(top); entry != end(entry); ++entry) {
      const std::string path = entry->path();
      world += path + '\n';
      if (path == "/run/em" || path.find("/replicated_by_") != std::string::npos) {
        entry.disable_recursion_pending();
        continue;  // used by the platform, or a root
      }
      struct stat status;
      require(lstat(path.c_str(), &status) == 0, path.c_str());
      world += " mode " + std::to_string(status.st_mode) + " changed" + nanoseconds(status.st_ctim);
      if (S_ISREG(status.st_mode)) world += " read" + nanoseconds(status.st_atim);
      world += '\n';
    }
  }
  return world;
}

// The scan creates the digest cache files.
void plant_trees() {
  for (const std::string root : root_paths) {
    for (const fs::directory_entry& entry : fs::directory_iterator(root))
      fs::remove_all(entry.path());
    fs::create_directories(root + "dir/deep");
    write_text(root + "small", "content");
    write_text(root + "dir/deep/file", "");
    fs::create_symlink(kCanary / "file", root + ".$SyncDigest$new");
    fs::create_symlink(kCanary, root + "link");
    fs::create_symlink(kCanary / "dir", root + "dir/link");
    fs::create_symlink(kCanary / "file", root + "file_link");
    fs::create_symlink(kCanary / "created", root + "new_link");
    require(mkfifo((root + "fifo").c_str(), 0644) == 0, "fifo");
  }
  write_text(std::string(root_paths[kThisEmRoot]) + "large", std::string(kChunkSize + 10, 'x'));
  FileEntry* list = nullptr;
  scan_replicated_roots(&g_context, &list, true);
  free_file_list(&list);
}

}  // namespace

void enter_sandbox(bool plants_trees, unsigned runs_per_look) {
  g_plants_trees = plants_trees;
  g_runs_per_look = runs_per_look;
  const fs::path directory = fs::current_path();
  require(unshare(CLONE_NEWNS) == 0, "unshare");
  require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
  const int fd = open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  for (const char* path : {"/mnt", "/run", "/var/run", "/tmp"}) {
    if (fs::is_symlink(path)) continue;  // /var/run, mostly
    // Every read changes an access time.
    require(mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV | MS_STRICTATIME,
                  "mode=0755,size=64m") == 0,
            path);
  }
  fs::create_directories(directory);  // it may be below the old /tmp
  const std::string before = "/proc/self/fd/" + std::to_string(fd);
  require(mount(before.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
              chdir(directory.c_str()) == 0 &&
              mount(nullptr, "/", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0,
          directory.c_str());
  const struct rlimit limit = {1 << 20, 1 << 20};  // sparse files of 4 GiB would only cost time
  setrlimit(RLIMIT_FSIZE, &limit);
  signal(SIGXFSZ, SIG_IGN);
  umask(0022);
  fs::create_directories(kCanary / "dir");
  write_text(kCanary / "file", "outside");
  write_text(kCanary / "dir/file", "outside");
  for (const char* root : root_paths)
    fs::create_directories(root);
  fs::create_directories("/run/em/events");
  g_planted = world_outside();
  atexit(look_at_world);
  // Lines are still formatted for the flight recorder; printing them only costs time.
  setenv("BREL_LOG_LEVEL", "0", 0);
  debug_log_to_stdout(1);
}

void start_run(bool active) {
  if (g_runs++ % g_runs_per_look == 0 && g_plants_trees) plant_trees();
  g_cpg = ScriptedCpg();
  g_cpg.context = &g_context;
  empty_flight_recorder();
  g_flight_recorder.paused = 0;
  init_context(&g_context);
  cpg_local_get(0, &g_context.cpg_local_nodeid);
  g_context.cpg_membership_flags = kSelfMember | kPeerMember;
  if (active != this_em_is_active()) {
    active ? write_text(kActiveFile, "") : static_cast<void>(unlink(kActiveFile));
  }
}

void end_run() {
  free_file_list(&g_context.update_queue);
  close_notes(&g_context);
  if (g_runs % g_runs_per_look == 0) look_at_world();
}

void look_at_world() {
  const std::string world = world_outside();
  if (world == g_planted) return;
  fprintf(stderr, "Something outside the roots was touched. Before:\n%sAfter:\n%s",
          g_planted.c_str(), world.c_str());
  abort();
}
