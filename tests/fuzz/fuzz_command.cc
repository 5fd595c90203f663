// Packets on the command socket, through a real server. Every packet is answered, or its
// connection is closed.

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/cmdsockserver.h"
#include "tests/fuzz/sandbox.h"

namespace {

constexpr int kNumber = 1;
constexpr int kMaxWait = 10000;  // ms; far above what any answer takes

// Touches every byte, and answers with any status and size up to the request's own.
uint32_t answer(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp) {
  std::vector<uint8_t> copy(message, message + size);
  if (type % 3 != 0) cmd_rsp_attach_payload(copy.data(), size, rsp);
  if (type % 3 == 2) cmd_rsp_attach_payload(copy.data(), size / 2, rsp);
  return type;
}

void start_server() {
  static CmdServer* const server = [] {
    CmdServer* created = cmd_server_create(kNumber, answer);
    if (created == nullptr || cmd_server_start(created) != 0) abort();
    return created;
  }();
  (void)server;
}

int connect_to_server() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, kCmdSocketFormat, kNumber);
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) abort();
  return fd;
}

// False when the server closed the connection.
bool exchange(int fd, const std::vector<uint8_t>& packet) {
  if (send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) < 0) return false;
  pollfd readable = {fd, POLLIN, 0};
  int ready;
  do {
    ready = poll(&readable, 1, kMaxWait);
  } while (ready < 0 && errno == EINTR);  // the fuzzer's own timer
  if (ready != 1) {
    fprintf(stderr, "No answer\n");
    abort();
  }
  static uint8_t response[kCmdMaxMessageSize + 1024];
  return recv(fd, response, sizeof response, 0) > 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  start_server();
  Input in(data, size);
  const int fd = connect_to_server();
  bool open = true;
  while (open && !in.empty()) {
    std::vector<uint8_t> packet = in.block();
    packet.resize(packet.size() * (1 + in.u8()));  // long packets of short inputs
    open = exchange(fd, packet);
  }
  close(fd);
  return 0;
}
