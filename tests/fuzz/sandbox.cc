#include "tests/fuzz/sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
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

#include "platform/storage.h"
#include "platform/util.h"
#include "redundancy_health/catalog/tree_scan.h"
#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/transport/sync_thread.h"

namespace fs = std::filesystem;

namespace {

constexpr char kCanary[] = "/mnt/canary";
constexpr char kSecret[] = "bytes that no message may carry";
constexpr char kActiveFile[] = "/run/em/active";
constexpr char kVolatileRoot[] = "/run/replicated_by_active_em/";  // root 3 without the link
constexpr rlim_t kMaxFileSize = 1024 * 1024;  // a sparse file of 4 GiB would only cost time

// What there is, one line per name: outside the roots and inside them.
struct World {
  std::string outside;
  std::string inside;
};

World g_walked;    // nftw has no argument for its callback
World g_pristine;  // as planted
bool g_replant = true;

[[noreturn]] void fail(const char* what) {
  fprintf(stderr, "%s: %s\n", what, strerror(errno));
  exit(1);
}

bool is_in_a_root(const std::string& path) {
  return path.starts_with(kVolatileRoot) ||
         std::any_of(std::begin(root_paths), std::end(root_paths),
                     [&](const char* root) { return path.starts_with(root); });
}

// A root is outside as a name and an inode; its times are those of its content.
int record(const char* name, const struct stat* status, int, struct FTW*) {
  const std::string path(name);
  const bool root = is_in_a_root(path + "/") && !is_in_a_root(path);
  if (path == "/run/em/events") return FTW_SKIP_SUBTREE;  // the platform's, as is the role
  if (path == "/run/em" || path == kActiveFile) return FTW_CONTINUE;
  char line[PATH_MAX + 128];
  snprintf(line, sizeof line, "%s inode %llu mode %o", name,
           static_cast<unsigned long long>(status->st_ino), status->st_mode);
  std::string& lines = is_in_a_root(path) ? g_walked.inside : g_walked.outside;
  lines.append(line);
  if (!root) {
    snprintf(line, sizeof line, " size %lld changed %lld.%09ld",
             static_cast<long long>(status->st_size),
             static_cast<long long>(status->st_ctim.tv_sec), status->st_ctim.tv_nsec);
    lines.append(line);
  }
  lines.append("\n");
  return FTW_CONTINUE;
}

World walk() {
  g_walked = {};
  for (const char* top : {"/mnt", "/run"})
    if (nftw(top, record, 16, FTW_PHYS | FTW_ACTIONRETVAL) != 0) fail(top);
  return std::move(g_walked);
}

void write_text(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0 || write(fd, text.data(), text.size()) < 0) fail(path.c_str());
  close(fd);
}

void link_to(const std::string& target, const std::string& path) {
  if (symlink(target.c_str(), path.c_str()) != 0) fail(path.c_str());
}

void plant(const std::string& root) {
  for (const fs::directory_entry& entry : fs::directory_iterator(root))
    fs::remove_all(entry.path());
  fs::create_directories(root + "dir/deep");
  write_text(root + "small", "content");
  write_text(root + "dir/deep/file", "");
  link_to(std::string(kCanary) + "/file", root + ".$SyncDigest$new");
  link_to(kCanary, root + "link");
  link_to(std::string(kCanary) + "/dir", root + "dir/link");
  link_to(std::string(kCanary) + "/file", root + "file_link");
  link_to(std::string(kCanary) + "/created", root + "new_link");
  if (mkfifo((root + "fifo").c_str(), 0644) != 0) fail("fifo");
}

// The scan makes the digest cache files, which then stay.
void plant_trees() {
  for (const char* root : root_paths)
    plant(root);
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

// Keeps `directory` as the one writable place of the disk.
bool enter_namespace(const char* directory) {
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return false;
  const int fd = open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC);
  for (const char* path : {"/mnt", "/run", "/var/run", "/tmp"}) {
    if (fs::is_symlink(path)) continue;  // /var/run, mostly
    if (mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=64m") != 0)
      return false;
  }
  fs::create_directories(directory);  // it may have been below /tmp
  const std::string before = "/proc/self/fd/" + std::to_string(fd);
  return mount(before.c_str(), directory, nullptr, MS_BIND, nullptr) == 0 &&
         chdir(directory) == 0 &&
         mount(nullptr, "/", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
}

void limit_file_size() {
  const struct rlimit limit = {kMaxFileSize, kMaxFileSize};
  setrlimit(RLIMIT_FSIZE, &limit);
  signal(SIGXFSZ, SIG_IGN);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char program[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
  if (length <= 0) fail("/proc/self/exe");
  program[length] = '\0';
  if (!enter_namespace(fs::path(program).parent_path().c_str())) fail("private mount namespace");
  limit_file_size();
  umask(0022);
  fs::create_directories(std::string(kCanary) + "/dir");
  write_text(std::string(kCanary) + "/file", kSecret);
  write_text(std::string(kCanary) + "/dir/file", kSecret);
  for (const char* root : root_paths)
    fs::create_directories(root);
  fs::create_directories("/run/em/events");
  // Lines are formatted for the flight recorder in any case; printing them only costs time.
  setenv("BREL_LOG_LEVEL", "0", 0);
  debug_log_to_stdout(1);
  return 0;
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
  }
  init_context(&g_context);
  g_context.cpg_local_nodeid = kOwnNode;
  g_context.cpg_membership_flags = kSelfMember | kPeerMember;
  if (active) {
    write_text(kActiveFile, "");
  } else {
    unlink(kActiveFile);
  }
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

void replant() {
  g_replant = true;
}

void deliver(uint32_t nodeid, const std::vector<uint8_t>& message) {
  std::vector<uint8_t> bytes(message);
  // The peer is another process wherever it runs.
  const auto pid = static_cast<uint32_t>(getpid() + (nodeid == kOwnNode ? 0 : 1));
  on_cpg_message(0, nullptr, nodeid, pid, bytes.data(), bytes.size());
}

void deliver(uint32_t nodeid, uint32_t command, uint32_t exchange_id, uint32_t sequence_id,
             const void* payload, size_t size) {
  CpgHeader header = {kCpgMagic, command, 0, exchange_id, sequence_id, {}};
  storage_cfg_set_result(&header.result, 0, nullptr);
  std::vector<uint8_t> message(sizeof header + size);
  memcpy(message.data(), &header, sizeof header);
  if (size > 0) memcpy(message.data() + sizeof header, payload, size);
  deliver(nodeid, message);
}

void start_comparison(const void* listing, size_t size) {
  SyncContext* ctx = &g_context;
  start_run(true);
  ctx->rpc_stage = RPC_LOCAL_BUSY;
  ctx->cur_exchange_em_is_active = 1;
  on_sync_state_change(ctx, ON_SYNC_REQ, kOwnNode, nullptr, nullptr, 0);
  deliver(kOwnNode, MSG_LOCK_REQ, ctx->cur_exchange_id, 0, nullptr, 0);
  deliver(kPeerNode, MSG_LISTING_ACK, ctx->cur_exchange_id, 0, listing, size);
}

void post_request(const std::vector<uint8_t>& message) {
  g_context.rpc_msg = message.data();
  g_context.current_rpc_size = static_cast<uint32_t>(message.size());
  g_context.rpc_stage = RPC_REQUESTING;
}

bool take_result() {
  if (g_context.rpc_stage != RPC_COMPLETE) return false;
  g_context.rpc_stage = RPC_IDLE;
  g_context.rpc_msg = nullptr;
  g_context.current_rpc_size = 0;
  return true;
}

uint8_t Input::u8() {
  if (size_ == 0) return 0;
  --size_;
  return *data_++;
}

std::vector<uint8_t> Input::bytes(size_t count) {
  count = std::min(count, size_);
  std::vector<uint8_t> taken(data_, data_ + count);
  data_ += count;
  size_ -= count;
  return taken;
}

std::vector<uint8_t> Input::block() {
  const size_t low = u8();
  return bytes(low | static_cast<size_t>(u8()) << 8);
}
