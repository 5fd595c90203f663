// Command-line client of cluster_sync_daemon: asks for updates and diagnostics on its command
// socket and shows the last recorded state of the replication fault.

#include <endian.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/cmdsockserver.h"
#include "platform/event.h"
#include "platform/storage.h"

namespace {

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2, kNoAnswer = 3 };

constexpr uint32_t kRpcUpdate = 0;
constexpr uint32_t kDiagnostic = 1;

constexpr uint32_t kReplicationFaultEvent = 0x80000702;
constexpr uint32_t kReplicationFaultId = 0x000F0018;
constexpr uint32_t kHealthy = 1;
constexpr uint32_t kFailing = 4;
constexpr size_t kFaultRecordSize = 1036;  // three 32-bit numbers and 1,024 bytes of data

constexpr long kMaxTimeoutSeconds = 24 * 60 * 60;

constexpr char kHelp[] =
    R"(Usage: cluster_sync_ctl [OPTION]... COMMAND

Commands:
  update SRC DEST       rename SRC onto the replicated file DEST, here and on the peer
  delete DEST           delete the replicated file DEST, here and on the peer
  sync                  run an exchange with the peer
  diag COMMAND[=ARG]    send a diagnostic command to the daemon
  fault                 show the last recorded state of the replication fault;
                        works without the daemon

Relative paths are taken from the current directory.

Options:
  --json                print the answer as one line of JSON
  --socket N            number of the daemon's command socket (default 2006)
  --timeout SECONDS     longest wait for the whole answer (default 60)
  --help                show this text

Exit status:
  0  success; for fault: healthy, or nothing recorded yet
  1  the daemon reports a failure; for fault: replication is failing
  2  wrong usage
  3  no daemon answers, or not in time, or what came back cannot be understood
)";

struct Options {
  bool json = false;
  int socket_number = 2006;
  int timeout_seconds = 60;
};

// A response packet, or why there is none.
struct Answer {
  std::string error;  // empty when there is an answer
  uint32_t status = 0;
  std::vector<uint8_t> payload;
};

// Length of the well-formed UTF-8 sequence at `text`, 0 when there is none.
size_t utf8_length(const unsigned char* text, size_t size) {
  const unsigned char lead = text[0];
  if (lead < 0x80) return 1;
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || length > size) return 0;
  // The first two bytes tell overlong forms, surrogates and numbers beyond Unicode.
  const unsigned char second = text[1];
  if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
      (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F))
    return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((text[i] & 0xC0) != 0x80) return 0;
  }
  return length;
}

// The text as a JSON string. A byte that is no part of well-formed UTF-8 becomes U+FFFD.
std::string json_string(const std::string& text) {
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text.data());
  std::string json = "\"";
  for (size_t i = 0; i < text.size();) {
    const size_t length = utf8_length(bytes + i, text.size() - i);
    if (length == 0) {
      json += "\\ufffd";
    } else if (bytes[i] < 0x20 || bytes[i] == 0x7F) {
      char code[7];
      snprintf(code, sizeof code, "\\u%04x", bytes[i]);
      json += code;
    } else {
      if (bytes[i] == '"' || bytes[i] == '\\') json += '\\';
      json.append(text, i, length);
    }
    i += length == 0 ? 1 : length;
  }
  return json + "\"";
}

// The text with control bytes made visible, so that a file name cannot drive the terminal.
std::string printable(const std::string& text) {
  std::string shown;
  for (const char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    char code[5] = {c, '\0'};
    if (byte < 0x20 || byte == 0x7F) snprintf(code, sizeof code, "\\x%02x", byte);
    shown += code;
  }
  return shown;
}

const char* json_bool(bool value) {
  return value ? "true" : "false";
}

const char* yes_or_no(bool value) {
  return value ? "yes" : "no";
}

int report_error(const Options& options, const std::string& text) {
  if (options.json) printf("{\"error\":%s}\n", json_string(text).c_str());
  fprintf(stderr, "cluster_sync_ctl: %s\n", printable(text).c_str());
  return kNoAnswer;
}

int64_t monotonic_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Limits the next call on the socket to the time that is left. False when none is left.
bool limit_next_call(int fd, int64_t deadline) {
  const int64_t left = deadline - monotonic_ms();
  if (left <= 0) return false;
  timeval limit = {};
  limit.tv_sec = static_cast<time_t>(left / 1000);
  limit.tv_usec = static_cast<suseconds_t>(left % 1000 * 1000);
  return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0 &&
         setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0;
}

// The three calls below return whether they succeeded; errno is EAGAIN when the time was up.
bool connect_to(int fd, int number, int64_t deadline) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, kCmdSocketFormat, number);
  errno = EAGAIN;
  return limit_next_call(fd, deadline) &&
         connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool send_request(int fd, uint32_t type, const std::string& message, int64_t deadline) {
  const uint32_t wire_type = htole32(type);
  std::string packet(reinterpret_cast<const char*>(&wire_type), sizeof wire_type);
  packet += message;
  errno = EAGAIN;
  return limit_next_call(fd, deadline) && send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) ==
                                              static_cast<ssize_t>(packet.size());
}

bool receive_answer(int fd, int64_t deadline, std::vector<uint8_t>* packet) {
  packet->resize(sizeof(uint32_t) + kCmdMaxMessageSize);
  errno = EAGAIN;
  if (!limit_next_call(fd, deadline)) return false;
  const ssize_t size = recv(fd, packet->data(), packet->size(), 0);
  packet->resize(size > 0 ? static_cast<size_t>(size) : 0);
  return size >= 0;
}

Answer ask_daemon(const Options& options, uint32_t type, const std::string& message) {
  Answer answer;
  const int64_t deadline = monotonic_ms() + int64_t{options.timeout_seconds} * 1000;
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  std::vector<uint8_t> packet;
  if (fd < 0 || !connect_to(fd, options.socket_number, deadline) ||
      !send_request(fd, type, message, deadline) || !receive_answer(fd, deadline, &packet)) {
    answer.error = errno == EAGAIN
                       ? "no answer within " + std::to_string(options.timeout_seconds) + " s"
                       : std::string("no daemon answers: ") + strerror(errno);
  } else if (packet.empty()) {
    answer.error = "the daemon closed the connection without an answer";
  } else if (packet.size() < sizeof answer.status) {
    answer.error = "the daemon's answer cannot be understood";
  } else {
    memcpy(&answer.status, packet.data(), sizeof answer.status);
    answer.status = le32toh(answer.status);
    answer.payload.assign(packet.begin() + sizeof answer.status, packet.end());
  }
  if (fd >= 0) close(fd);
  return answer;
}

void print_status(const Options& options, uint32_t status) {
  if (options.json)
    printf("{\"status\":%u}\n", status);
  else if (status == 0)
    printf("done\n");
  else
    printf("refused with status %u\n", status);
}

void print_result(const Options& options, const RpcResult& result) {
  const bool peer_present = result.peer_present == 'Y';
  if (options.json) {
    printf(
        "{\"status\":0,\"success\":%s,\"local_ok\":%s,\"remote_ok\":%s,\"benign\":%s,"
        "\"canceled\":%s,\"peer_present\":%s,\"reason\":%s}\n",
        json_bool(result.success != 0), json_bool(result.local_ok != 0),
        json_bool(result.remote_ok != 0), json_bool(result.benign != 0),
        json_bool(result.canceled != 0), json_bool(peer_present),
        json_string(result.reason).c_str());
    return;
  }
  printf("success:      %s\nlocal_ok:     %s\nremote_ok:    %s\npeer_present: %s\n",
         yes_or_no(result.success != 0), yes_or_no(result.local_ok != 0),
         yes_or_no(result.remote_ok != 0), yes_or_no(peer_present));
  if (result.reason[0] != '\0') printf("reason:       %s\n", printable(result.reason).c_str());
}

// Takes the record out of the payload. False when it is none.
bool read_result(const std::vector<uint8_t>& payload, RpcResult* result) {
  if (payload.size() != sizeof *result) return false;
  memcpy(result, payload.data(), sizeof *result);
  result->peer_present = le32toh(result->peer_present);
  return memchr(result->reason, '\0', sizeof result->reason) != nullptr &&
         (result->peer_present == 'Y' || result->peer_present == 'N');
}

int request_update(const Options& options, const std::string& source,
                   const std::string& destination) {
  const std::string message = source + '\0' + destination + '\0';
  const Answer answer = ask_daemon(options, kRpcUpdate, message);
  if (!answer.error.empty()) return report_error(options, answer.error);
  if (answer.status != 0) {
    print_status(options, answer.status);
    return kFailed;
  }
  RpcResult result;
  if (!read_result(answer.payload, &result))
    return report_error(options, "the daemon's answer cannot be understood");
  print_result(options, result);
  return result.success != 0 ? kDone : kFailed;
}

int send_diagnostic(const Options& options, const std::string& command) {
  const Answer answer = ask_daemon(options, kDiagnostic, command);
  if (!answer.error.empty()) return report_error(options, answer.error);
  print_status(options, answer.status);
  return answer.status == 0 ? kDone : kFailed;
}

int show_fault(const Options& options) {
  char path[64];
  snprintf(path, sizeof path, kEventFileFormat, kReplicationFaultEvent);
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0 && errno == ENOENT) {
    printf(options.json ? "{\"recorded\":false}\n" : "no fault state has been recorded yet\n");
    return kDone;
  }
  if (fd < 0) return report_error(options, std::string(path) + ": " + strerror(errno));
  uint8_t record[kFaultRecordSize + 1] = {};
  const ssize_t size = read(fd, record, sizeof record);
  close(fd);
  uint32_t head[3] = {};  // EM, fault id, status
  memcpy(head, record, sizeof head);
  const auto [em, fault_id, status] = head;
  if (size != static_cast<ssize_t>(kFaultRecordSize) || fault_id != kReplicationFaultId ||
      (status != kHealthy && status != kFailing))
    return report_error(options, std::string(path) + " holds no state of the replication fault");
  const bool healthy = status == kHealthy;
  if (options.json)
    printf("{\"recorded\":true,\"em\":%u,\"fault_id\":%u,\"status\":%u,\"healthy\":%s}\n", em,
           fault_id, status, json_bool(healthy));
  else
    printf("replication with EM %u is %s\n", em, healthy ? "healthy" : "failing");
  return healthy ? kDone : kFailed;
}

int usage_error(const std::string& text) {
  fprintf(stderr, "cluster_sync_ctl: %s\nTry 'cluster_sync_ctl --help'.\n",
          printable(text).c_str());
  return kUsage;
}

// Reads a whole decimal number between the bounds into `*number`.
bool parse_number(const char* text, long least, long most, int* number) {
  char* end = nullptr;
  errno = 0;
  const long value = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < least || value > most) return false;
  *number = static_cast<int>(value);
  return true;
}

// Fills `*options`; afterwards argv[optind] is the command. Returns false on wrong usage.
bool parse_options(int argc, char** argv, Options* options, bool* help) {
  static const option kLongOptions[] = {{"json", no_argument, nullptr, 'j'},
                                        {"socket", required_argument, nullptr, 's'},
                                        {"timeout", required_argument, nullptr, 't'},
                                        {"help", no_argument, nullptr, 'h'},
                                        {nullptr, 0, nullptr, 0}};
  bool valid = true;
  for (;;) {
    switch (getopt_long(argc, argv, "", kLongOptions, nullptr)) {
      case -1:
        return valid;
      case 'j':
        options->json = true;
        break;
      case 's':
        valid = valid && parse_number(optarg, 0, INT32_MAX, &options->socket_number);
        break;
      case 't':
        valid = valid && parse_number(optarg, 1, kMaxTimeoutSeconds, &options->timeout_seconds);
        break;
      case 'h':
        *help = true;
        break;
      default:
        valid = false;
    }
  }
}

// Makes the path absolute. False when the current directory has no name any more: the daemon
// would take the relative path from a directory of its own.
bool make_absolute(std::string* path) {
  if ((*path)[0] == '/') return true;
  char* current = getcwd(nullptr, 0);
  if (current == nullptr) return false;
  *path = std::string(current) + "/" + *path;
  free(current);
  return true;
}

int run_update(const Options& options, std::string source, std::string destination) {
  if ((!source.empty() && !make_absolute(&source)) || !make_absolute(&destination))
    return usage_error(std::string("no current directory: ") + strerror(errno));
  return request_update(options, source, destination);
}

int run_command(const Options& options, const std::vector<std::string>& words) {
  // An empty path would turn an update into a deletion and a deletion into an exchange.
  for (const std::string& word : words) {
    if (word.empty()) return usage_error("an argument is empty");
    if (word.size() > kCmdMaxMessageSize / 4) return usage_error("an argument is too long");
  }
  const std::string& command = words[0];
  if (command == "update" && words.size() == 3) return run_update(options, words[1], words[2]);
  if (command == "delete" && words.size() == 2) return run_update(options, "", words[1]);
  if (command == "sync" && words.size() == 1) return request_update(options, "", "");
  if (command == "diag" && words.size() == 2) return send_diagnostic(options, words[1]);
  if (command == "fault" && words.size() == 1) return show_fault(options);
  return usage_error("wrong command or wrong number of arguments: " + command);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  bool help = false;
  if (!parse_options(argc, argv, &options, &help)) return usage_error("wrong option");
  if (help) {
    fputs(kHelp, stdout);
    return kDone;
  }
  if (optind >= argc) return usage_error("no command given");
  const int status = run_command(options, {argv + optind, argv + argc});
  // An answer that could not be shown was not given.
  return fflush(stdout) == 0 ? status : kNoAnswer;
}
