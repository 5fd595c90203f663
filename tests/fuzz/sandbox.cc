#include "tests/fuzz/sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

#include "platform/storage.h"
#include "platform/util.h"
#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/catalog/tree_scan.h"
#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/transport/sync_thread.h"

namespace fs = std::filesystem;

namespace {

const fs::path kCanary = "/mnt/canary";
constexpr char kSecret[] = "bytes that no message may carry";
constexpr char kActiveFile[] = "/run/em/active";
constexpr char kVolatileRoot[] = "/run/replicated_by_active_em/";  // root 3 without the link
constexpr rlim_t kMaxFileSize = 1024 * 1024;  // a sparse file of 4 GiB would only cost time

// What there is, one line per name: outside the roots and inside them.
struct World {
  std::string outside;
  std::string inside;
};

World g_pristine;  // as planted
bool g_replant = true;
std::vector<uint8_t> g_posted;  // the waiting caller's bytes

void require(bool done, const char* what) {
  if (done) return;
  perror(what);
  exit(1);
}

bool is_in_a_root(const std::string& path) {
  return path.starts_with(kVolatileRoot) ||
         std::any_of(std::begin(root_paths), std::end(root_paths),
                     [&](const char* root) { return path.starts_with(root); });
}

World walk() {
  World world;
  for (const char* top : {"/mnt", "/run"}) {
    for (auto entry = fs::recursive_directory_iterator(top); entry != end(entry); ++entry) {
      const std::string path = entry->path();
      if (path == "/run/em/events") entry.disable_recursion_pending();  // the platform's
      if (path.starts_with("/run/em/events") || path == "/run/em" || path == kActiveFile) continue;
      struct stat status;
      require(lstat(path.c_str(), &status) == 0, path.c_str());
      // A root is outside as a name and an inode; its times are those of its content.
      if (is_in_a_root(path + "/") && !is_in_a_root(path))
        status.st_size = status.st_ctim.tv_sec = 0;
      char line[200];
      snprintf(line, sizeof line, " inode %llu mode %o size %lld changed %lld.%09ld\n",
               static_cast<unsigned long long>(status.st_ino), status.st_mode,
               static_cast<long long>(status.st_size),
               static_cast<long long>(status.st_ctim.tv_sec),
               status.st_ctim.tv_sec == 0 ? 0 : status.st_ctim.tv_nsec);
      (is_in_a_root(path) ? world.inside : world.outside) += path + line;
    }
  }
  return world;
}

void write_text(const std::string& path, const std::string& text) {
  require(static_cast<bool>(std::ofstream(path) << text << std::flush), path.c_str());
}

// The scan makes the digest cache files, which then stay.
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

// Not instrumented, and no library call: the fuzzer would learn the text from the comparison.
__attribute__((no_sanitize("coverage"))) bool carries_secret(const std::string& payload) {
  constexpr size_t length = sizeof kSecret - 1;
  for (size_t at = 0; at + length <= payload.size(); ++at) {
    size_t same = 0;
    while (same < length && payload[at + same] == kSecret[same])
      ++same;
    if (same == length) return true;
  }
  return false;
}

}  // namespace

void enter_sandbox() {
  const std::string directory = fs::read_symlink("/proc/self/exe").parent_path();
  require(unshare(CLONE_NEWNS) == 0, "unshare");
  require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
  const int fd = open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  for (const char* path : {"/mnt", "/run", "/var/run", "/tmp"}) {
    if (fs::is_symlink(path)) continue;  // /var/run, mostly
    require(mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=64m") == 0, path);
  }
  fs::create_directories(directory);  // it may have been below /tmp
  const std::string before = "/proc/self/fd/" + std::to_string(fd);
  require(mount(before.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
              chdir(directory.c_str()) == 0 &&
              mount(nullptr, "/", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0,
          directory.c_str());
  const struct rlimit limit = {kMaxFileSize, kMaxFileSize};
  setrlimit(RLIMIT_FSIZE, &limit);
  signal(SIGXFSZ, SIG_IGN);
  umask(0022);
  fs::create_directories(kCanary / "dir");
  write_text(kCanary / "file", kSecret);
  write_text(kCanary / "dir/file", kSecret);
  for (const char* root : root_paths)
    fs::create_directories(root);
  fs::create_directories("/run/em/events");
  // Lines are formatted for the flight recorder in any case; printing them only costs time.
  setenv("BREL_LOG_LEVEL", "0", 0);
  debug_log_to_stdout(1);
}

void start_run(bool active) {
  g_cpg = ScriptedCpg();
  g_cpg.nodeid = kOwnNode;
  g_cpg.context = &g_context;
  empty_flight_recorder();
  g_flight_recorder.paused = 0;
  init_context(&g_context);
  if (g_replant) {
    plant_trees();
    g_pristine = walk();
    g_replant = false;
    init_context(&g_context);
  }
  g_context.cpg_local_nodeid = kOwnNode;
  g_context.cpg_membership_flags = kSelfMember | kPeerMember;
  unlink(kActiveFile);
  if (active) write_text(kActiveFile, "");
}

void end_run() {
  free_file_list(&g_context.update_queue);
  for (const SentMessage& message : g_cpg.sent) {
    if (!carries_secret(message.payload)) continue;
    fprintf(stderr, "A message carries bytes from outside the roots\n");
    abort();
  }
  const World world = walk();
  if (world.outside != g_pristine.outside) {
    fprintf(stderr, "Changed outside the roots. Before:\n%sAfter:\n%s", g_pristine.outside.c_str(),
            world.outside.c_str());
    abort();
  }
  if (world.inside != g_pristine.inside) g_replant = true;
}

void deliver(uint32_t nodeid, const std::string& message) {
  std::vector<uint8_t> bytes(message.begin(), message.end());
  // The peer is another process wherever it runs.
  const auto pid = static_cast<uint32_t>(getpid() + (nodeid == kOwnNode ? 0 : 1));
  on_cpg_message(0, nullptr, nodeid, pid, bytes.data(), bytes.size());
}

void deliver(uint32_t nodeid, uint32_t command, uint32_t exchange_id, uint32_t sequence_id,
             const std::string& payload) {
  CpgHeader header = {kCpgMagic, command, 0, exchange_id, sequence_id, {}};
  storage_cfg_set_result(&header.result, 0, nullptr);
  deliver(nodeid, bytes_of(header) + payload);
}

void lock_by_peer() {
  deliver(kPeerNode, MSG_LOCK_REQ, kPeerExchange);
}

void deliver_request(uint32_t command, const std::string& payload) {
  deliver(kPeerNode, command, kPeerExchange, command == MSG_UPDATE_REQ, payload);
}

void start_exchange() {
  g_context.rpc_stage = RPC_LOCAL_BUSY;
  g_context.cur_exchange_em_is_active = 1;
  on_sync_state_change(&g_context, ON_SYNC_REQ, kOwnNode, nullptr, nullptr, 0);
}

void start_comparison(const std::string& listing) {
  start_run(true);
  start_exchange();
  deliver(kOwnNode, MSG_LOCK_REQ, g_context.cur_exchange_id);
  deliver(kPeerNode, MSG_LISTING_ACK, g_context.cur_exchange_id, 0, listing);
}

void accept_update() {
  std::string answer = g_cpg.sent.back().payload;
  answer[0] = static_cast<char>(PUSH_ACK);  // nothing to write
  deliver(kPeerNode, MSG_UPDATE_ACK, g_context.cur_exchange_id, g_context.cur_sequence_id, answer);
}

void post_request(const std::string& message) {
  g_posted.assign(message.begin(), message.end());
  g_posted.shrink_to_fit();
  g_context.rpc_msg = g_posted.data();
  g_context.current_rpc_size = static_cast<uint32_t>(g_posted.size());
  g_context.rpc_stage = RPC_REQUESTING;
}
