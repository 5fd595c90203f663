#include "tests/unit/daemon_support.h"

#include <sys/mman.h>

#include <sstream>

#include "redundancy_health/catalog/pinned_path.h"
#include "redundancy_health/catalog/tree_scan.h"
#include "redundancy_health/catalog/unsynced.h"
#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/transfer/replaced_files.h"
#include "redundancy_health/transport/sync_thread.h"

namespace {

// Calls `take(level, text)` for each line "<level> function:line: text"; level is -1 for other
// lines.
void parse_log(int fd, const std::function<void(int, const std::string&)>& take) {
  std::istringstream lines(read_file("/proc/self/fd/" + std::to_string(fd)));
  for (std::string line; std::getline(lines, line);) {
    int level = -1, position = -1;
    sscanf(line.c_str(), "<%d> %*[^:]:%*d:%n", &level, &position);
    take(position < 0 ? -1 : level,
         position < 0 ? line : line.substr(static_cast<size_t>(position) + 1));
  }
}

}  // namespace

DaemonTest::DaemonTest() : stdout_fd_(dup(STDOUT_FILENO)) {
  fflush(stdout);
  capture_fd_ = memfd_create("log", MFD_CLOEXEC);
  fcntl(capture_fd_, F_SETFL, O_APPEND);
  dup2(capture_fd_, STDOUT_FILENO);
  setenv("BREL_LOG_LEVEL", "7", 1);
  debug_log_to_stdout(1);

  g_cpg = ScriptedCpg();
  g_cpg.context = ctx;
  g_diag_params = {PTHREAD_MUTEX_INITIALIZER, 0, 0, "", "", "", "", 0, 0};
  clear_statistics();
  empty_flight_recorder();
  g_flight_recorder.max_entries = 500;
  g_flight_recorder.paused = 1;
  g_exit_daemon = 0;
  init_context(ctx);
  forget_unsynced();
  forget_kept();
  ctx->cpg_local_nodeid = 1;
  ctx->cpg_membership_flags = kSelfMember | kPeerMember;
  std::error_code busy;  // of a mount point
  for (const char* folder : {"/mnt", "/run"}) {
    for (const auto& entry : fs::directory_iterator(folder))
      fs::remove_all(entry, busy);
  }
  for (const char* root : root_paths) {
    fs::remove_all(root);
    fs::create_directories(root);
  }
  fs::remove_all("/var/run/em");
  fs::create_directories("/var/run/em");
}

DaemonTest::~DaemonTest() {
  release_kept_directory();  // of a file system that a test had mounted
  free_file_list(&ctx->update_queue);
  empty_flight_recorder();
  debug_log_to_stdout(0);
  fflush(stdout);
  dup2(stdout_fd_, STDOUT_FILENO);
  parse_log(capture_fd_, [](int level, const std::string& text) {
    if (level == -1) printf("%s\n", text.c_str());
  });
  close(capture_fd_);
  close(stdout_fd_);
}

void DaemonTest::set_active(bool active) {
  unlink("/var/run/em/active");
  if (active) write_file("/var/run/em/active", "");
}

Lines DaemonTest::logged(int level) const {
  Lines texts;
  parse_log(capture_fd_, [&](int its_level, const std::string& text) {
    if (its_level == level || (level == -1 && its_level != -1)) texts.push_back(text);
  });
  return texts;
}

void DaemonTest::change_membership(bool joined) {
  const cpg_name group = {7, "em-sync"};
  const cpg_address members[] = {{1, static_cast<uint32_t>(getpid()), 0}, {2, 4711, 0}};
  on_cpg_config(0, &group, members, joined ? 2 : 1, &members[1], joined ? 0 : 1, &members[1],
                joined ? 1 : 0);
}

void DaemonTest::publish(const std::string& message) {
  message_ = message;
  ctx->rpc_stage = RPC_REQUESTING;
  ctx->rpc_msg = reinterpret_cast<const uint8_t*>(message_.data());
  ctx->current_rpc_size = static_cast<uint32_t>(message_.size());
}

RpcResult DaemonTest::request(const std::string& source, const std::string& destination) {
  ctx->cur_state = ST_UNLOCKED;
  publish(source + '\0' + destination + '\0');
  on_sync_rpc_update(ctx);
  return ctx->rpc_result;
}

void DaemonTest::receive(const std::string& payload, uint32_t command) {
  g_cpg.sent.clear();
  reset_cpg_result(ctx);
  ctx->cur_state = ST_PEERLOCK;
  deliver_from_peer(message_bytes(command, ctx->peer_exchange_id, ctx->peer_sequence_id, payload));
}

uint32_t DaemonTest::fault_status() {
  const std::string record = read_file("/var/run/em/events/0x80000702");
  if (record.empty()) return 0;
  const uint32_t status = static_cast<uint8_t>(record[8]);
  EXPECT_EQ(record, std::string("\2\0\0\0\x18\0\x0F\0", 8) + little_endian(status) +
                        std::string(1024, '\0'));
  return status;
}

std::string tree_path(uint32_t root_index, const std::string& relative_path) {
  return root_paths[root_index] + relative_path;
}

std::string make_file(uint32_t root_index, const std::string& relative_path,
                      const std::string& content, mode_t mode) {
  const std::string path = tree_path(root_index, relative_path);
  fs::create_directories(fs::path(path).parent_path());
  write_file(path, content, mode);
  return path;
}

std::string pattern(size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  uint32_t state = 2463534242u + seed * 7919u;
  for (char& byte : bytes)
    byte = static_cast<char>((state = state * 1664525u + 1013904223u) >> 24);
  return bytes;
}

Lines scan_lines(SyncContext* ctx, bool requester) {
  FileEntry* list = nullptr;
  scan_replicated_roots(ctx, &list, requester);
  Lines lines;
  for (const FileEntry* entry = list; entry != nullptr; entry = entry->next)
    lines.insert(lines.begin(), entry->xmit_line);
  free_file_list(&list);
  return lines;
}

std::string little_endian(uint32_t number) {
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8)
    bytes += static_cast<char>(number >> shift);
  return bytes;
}

std::string message_bytes(uint32_t command, uint32_t exchange_id, uint32_t sequence_id,
                          const std::string& payload, uint32_t flags) {
  return "\xFA\xA1\x1F\x0A" + little_endian(command) + little_endian(flags) +
         little_endian(exchange_id) + little_endian(sequence_id) +
         std::string("\1\1\1\0\0\0\0\0N\0\0\0", 12) + std::string(116, '\0') + payload;
}

std::string update(uint32_t type, uint32_t root, const std::string& path, uint32_t begin,
                   uint32_t end, uint32_t file_size, const std::string& data, int flags) {
  return little_endian(type) + '\1' + ((flags & kNoData) != 0 ? '\0' : '\1') +
         std::string(2, '\0') + little_endian(root) + ((flags & kRestricted) != 0 ? '\1' : '\0') +
         std::string(7, '\0') + little_endian(file_size) + little_endian(begin) +
         little_endian(end) + path + '\0' + data;
}

std::string push(uint32_t root, const std::string& path, const std::string& data) {
  const auto size = static_cast<uint32_t>(data.size());
  return update(PUSH_REQ, root, path, 0, size, size, data);
}

Lines sent_messages() {
  Lines messages;
  for (const auto& [header, payload] : g_cpg.sent)
    messages.push_back(std::string(sync_command_name(header.command)) + " " +
                       std::to_string(header.exchange_id) + "." +
                       std::to_string(header.sequence_id));
  return messages;
}
