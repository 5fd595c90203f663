#include "tools/ask_daemon.h"

#include <endian.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "platform/cmdsockserver.h"
#include "tools/output.h"

namespace {

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
  return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
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
  pollfd readable = {fd, POLLIN, 0};
  const int64_t start = monotonic_ms();
  for (int64_t now = start; readable.revents == 0; now = monotonic_ms()) {
    if (now - start >= 1000)
      show_progress("waiting for the daemon: " + std::to_string((now - start) / 1000) + " s");
    errno = EAGAIN;
    if (now >= deadline) return false;
    if (poll(&readable, 1, static_cast<int>(std::min<int64_t>(deadline - now, 1000))) < 0)
      return false;
  }
  packet->resize(sizeof(uint32_t) + kCmdMaxMessageSize);
  const ssize_t size = recv(fd, packet->data(), packet->size(), 0);
  packet->resize(size > 0 ? static_cast<size_t>(size) : 0);
  return size >= 0;
}

pid_t listener_pid(int fd) {
  ucred listener = {};
  socklen_t size = sizeof listener;
  return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &listener, &size) == 0 ? listener.pid : 0;
}

}  // namespace

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
    answer.daemon_pid = listener_pid(fd);
  }
  if (fd >= 0) close(fd);
  clear_progress();
  return answer;
}
