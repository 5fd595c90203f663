#include "tests/unit/daemon_support.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <filesystem>
#include <sstream>

#include "platform/util.h"
#include "redundancy_health/catalog/tree_scan.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/exit_flag.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/statistics.h"
#include "redundancy_health/transport/exchange_outcome.h"
#include "redundancy_health/transport/sync_thread.h"

namespace fs = std::filesystem;

namespace {

std::string whole_file(int fd) {
  std::string text;
  char buffer[65536];
  ssize_t size;
  while ((size = pread(fd, buffer, sizeof(buffer), static_cast<off_t>(text.size()))) > 0) {
    text.append(buffer, static_cast<size_t>(size));
  }
  return text;
}

// Parses "<level> function:line: text".
bool parse_log_line(const std::string& line, LogLine* parsed) {
  int level;
  int line_number;
  char function[128];
  int position = -1;
  if (sscanf(line.c_str(), "<%d> %127[^:]:%d: %n", &level, function, &line_number, &position) < 3 ||
      position < 0) {
    return false;
  }
  // The conversion swallows blanks that belong to the text.
  const size_t text_start = line.find(": ", line.find('>')) + 2;
  *parsed = {level, function, line.substr(text_start)};
  return true;
}

void reset_diag_params() {
  pthread_mutex_lock(&g_diag_params.mutex);
  g_diag_params.cpg_send_fail = 0;
  g_diag_params.statemachine_stuck = 0;
  for (char* path : {g_diag_params.fail_scan_path, g_diag_params.fail_read_path,
                     g_diag_params.fail_write_path, g_diag_params.fail_rename_path}) {
    memset(path, 0, kFaultPathSize);
  }
  g_diag_params.max_log_size = 0;
  pthread_mutex_unlock(&g_diag_params.mutex);
}

void deliver(uint32_t nodeid, uint32_t pid, std::string message) {
  cpg_name group = {7, "em-sync"};
  on_cpg_message(g_context.cpg_handle, &group, nodeid, pid, message.data(), message.size());
}

}  // namespace

LogCapture::LogCapture() : stdout_fd_(dup(STDOUT_FILENO)) {
  fflush(stdout);
  capture_fd_ = memfd_create("log", MFD_CLOEXEC);
  fcntl(capture_fd_, F_SETFL, O_APPEND);
  dup2(capture_fd_, STDOUT_FILENO);
  setenv("BREL_LOG_LEVEL", "7", 1);
  debug_log_to_stdout(1);
}

LogCapture::~LogCapture() {
  debug_log_to_stdout(0);
  fflush(stdout);
  dup2(stdout_fd_, STDOUT_FILENO);
  std::istringstream text(whole_file(capture_fd_));
  LogLine parsed;
  for (std::string line; std::getline(text, line);) {
    if (!parse_log_line(line, &parsed)) printf("%s\n", line.c_str());
  }
  close(capture_fd_);
  close(stdout_fd_);
}

std::vector<LogLine> LogCapture::lines() const {
  std::vector<LogLine> lines;
  std::istringstream text(whole_file(capture_fd_));
  LogLine parsed;
  for (std::string line; std::getline(text, line);) {
    if (parse_log_line(line, &parsed)) lines.push_back(parsed);
  }
  return lines;
}

DaemonTest::DaemonTest() {
  g_cpg = ScriptedCpg();
  g_cpg.context = ctx;
  reset_diag_params();
  clear_statistics();
  empty_flight_recorder();
  g_flight_recorder.max_entries = 500;
  g_flight_recorder.paused = 0;
  g_exit_daemon = 0;
  init_context(ctx);
  ctx->cpg_local_nodeid = 1;
  ctx->cpg_membership_flags = kSelfMember | kPeerMember;
  for (const char* root : root_paths) {
    fs::remove_all(root);
    fs::create_directories(root);
  }
  fs::remove_all("/var/run/em");
  fs::create_directories("/var/run/em");
}

DaemonTest::~DaemonTest() {
  free_file_list(&ctx->update_queue);
  empty_flight_recorder();
}

void DaemonTest::set_active(bool active) {
  if (active) {
    write_file("/var/run/em/active", "");
  } else {
    unlink("/var/run/em/active");
  }
}

std::vector<std::string> DaemonTest::logged(int level) const {
  std::vector<std::string> texts;
  for (const LogLine& line : log.lines()) {
    if (level == -1 || line.level == level) texts.push_back(line.text);
  }
  return texts;
}

bool DaemonTest::has_logged(const std::string& text) const {
  for (const LogLine& line : log.lines()) {
    if (line.text == text) return true;
  }
  return false;
}

uint32_t DaemonTest::fault_status() {
  const std::string record = read_file("/var/run/em/events/0x80000702");
  if (record.size() != sizeof(ReplicationFaultEvent)) return 0;
  uint32_t status;
  memcpy(&status, record.data() + 8, sizeof(status));
  return status;
}

std::string literally(const std::string& text) {
  std::string expression;
  for (const char c : text) {
    if (strchr("\\^$.[|()?*+{", c) != nullptr) expression += '\\';
    expression += c;
  }
  return expression;
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
  for (char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    byte = static_cast<char>(state);
  }
  return bytes;
}

std::vector<std::string> scan_lines(SyncContext* ctx, bool requester) {
  FileEntry* list = nullptr;
  scan_replicated_roots(ctx, &list, requester);
  std::vector<std::string> lines;
  for (const FileEntry* entry = list; entry != nullptr; entry = entry->next) {
    lines.insert(lines.begin(), entry->xmit_line);
  }
  free_file_list(&list);
  return lines;
}

std::string message_bytes(uint32_t command, uint32_t exchange_id, uint32_t sequence_id,
                          const std::string& payload) {
  CpgHeader header;
  header.magic = kCpgMagic;
  header.command = command;
  header.flags = 0;
  header.exchange_id = exchange_id;
  header.sequence_id = sequence_id;
  storage_cfg_set_result(&header.result, 0, nullptr);
  std::string bytes(sizeof(header), '\0');
  memcpy(bytes.data(), &header, sizeof(header));
  return bytes + payload;
}

std::vector<std::string> sent_messages() {
  std::vector<std::string> messages;
  for (const SentMessage& message : g_cpg.sent) {
    messages.push_back(std::string(sync_command_name(message.header.command)) + " " +
                       std::to_string(message.header.exchange_id) + "." +
                       std::to_string(message.header.sequence_id));
  }
  return messages;
}

void deliver_from_peer(const std::string& message) {
  deliver(2, 4711, message);
}

void deliver_own(const SentMessage& message) {
  std::string bytes(sizeof(message.header), '\0');
  memcpy(bytes.data(), &message.header, sizeof(message.header));
  deliver(g_context.cpg_local_nodeid, static_cast<uint32_t>(getpid()), bytes + message.payload);
}
