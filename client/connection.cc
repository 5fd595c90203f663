// A connection to the command socket: requests as packets, answers as records.

#include <endian.h>
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "client/cluster_sync.h"
#include "client/deadline.h"
#include "client/spelling.h"

namespace {

// A request packet is the type, as a little-endian number, and the message.
constexpr uint32_t kUpdate = 0;
constexpr uint32_t kDiagnostic = 1;
constexpr size_t kMaxMessageSize = 65536;

// Makes the next call on the socket end with EAGAIN when the time is up.
int limit_next_call(int fd, const Deadline& deadline) {
  const int left = deadline.left_ms();
  if (left == 0) return ETIMEDOUT;
  timeval limit = {};  // all zero: no limit
  if (left > 0) {
    limit.tv_sec = left / 1000;
    limit.tv_usec = left % 1000 * 1000L;
  }
  return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0 ? 0 : errno;
}

int connect_within(int fd, const sockaddr_un& address, const Deadline& deadline) {
  for (;;) {
    const int error = limit_next_call(fd, deadline);
    if (error != 0) return error;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return 0;
    if (errno == ENOENT) return ECONNREFUSED;
    if (errno != EINTR && errno != EAGAIN) return errno;
  }
}

// Sends the type and the two parts of the message as one packet.
int send_packet(int fd, uint32_t type, iovec message[2], const Deadline& deadline) {
  uint32_t wire_type = htole32(type);
  iovec parts[] = {{&wire_type, sizeof wire_type}, message[0], message[1]};
  msghdr packet = {};
  packet.msg_iov = parts;
  packet.msg_iovlen = 3;
  for (;;) {
    const int error = limit_next_call(fd, deadline);
    if (error != 0) return error;
    if (sendmsg(fd, &packet, MSG_NOSIGNAL) >= 0) return 0;
    if (errno == EPIPE) return ECONNRESET;
    if (errno != EINTR && errno != EAGAIN) return errno;
  }
}

int wait_readable(int fd, const Deadline& deadline) {
  for (;;) {
    pollfd readable = {fd, POLLIN, 0};
    const int ready = poll(&readable, 1, deadline.left_ms());
    if (ready > 0) return 0;
    if (ready == 0) return ETIMEDOUT;
    if (errno != EINTR) return errno;
  }
}

// An answer as it comes: a number, and the record when an update was served.
struct AnswerPacket {
  uint32_t status;
  cluster_sync_result result;
};
static_assert(sizeof(AnswerPacket) == 4 + 128);

// Receives the next packet into `*packet`, its whole size into `*size`.
int receive_packet(int fd, const Deadline& deadline, AnswerPacket* packet, size_t* size) {
  for (;;) {
    const int error = wait_readable(fd, deadline);
    if (error != 0) return error;
    const ssize_t n = recv(fd, packet, sizeof *packet, MSG_DONTWAIT | MSG_TRUNC);
    if (n == 0) return ECONNRESET;
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n < 0) return errno;
    *size = static_cast<size_t>(n);
    return 0;
  }
}

bool is_record(const cluster_sync_result& result) {
  return memchr(result.reason, '\0', sizeof result.reason) != nullptr &&
         (result.peer_present == 'Y' || result.peer_present == 'N');
}

}  // namespace

int cluster_sync_connect(const char* socket_path, int timeout_ms, int* connection) {
  const Deadline deadline(timeout_ms);
  if (socket_path == nullptr) socket_path = CLUSTER_SYNC_SOCKET;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (strlen(socket_path) >= sizeof address.sun_path) return ENAMETOOLONG;
  strcpy(address.sun_path, socket_path);
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  const int error = connect_within(fd, address, deadline);
  if (error != 0) {
    close(fd);
    return error;
  }
  *connection = fd;
  return 0;
}

int cluster_sync_send_update(int connection, const char* source, const char* destination,
                             int timeout_ms) {
  const Deadline deadline(timeout_ms);
  char from[PATH_MAX] = "";
  char to[PATH_MAX] = "";
  if (source != nullptr && destination == nullptr) return EINVAL;
  int error = source != nullptr ? spell_source(source, from) : 0;
  if (error == 0 && destination != nullptr) error = spell_destination(destination, to);
  if (error != 0) return error;
  iovec paths[] = {{from, strlen(from) + 1}, {to, strlen(to) + 1}};
  return send_packet(connection, kUpdate, paths, deadline);
}

int cluster_sync_send_diag(int connection, const char* command, int timeout_ms) {
  const Deadline deadline(timeout_ms);
  const size_t size = strlen(command);
  if (size == 0) return EINVAL;
  if (size > kMaxMessageSize) return ENAMETOOLONG;
  iovec message[] = {{const_cast<char*>(command), size}, {}};
  return send_packet(connection, kDiagnostic, message, deadline);
}

int cluster_sync_receive(int connection, int timeout_ms, uint32_t* status,
                         cluster_sync_result* result) {
  AnswerPacket answer;
  size_t size = 0;
  const int error = receive_packet(connection, Deadline(timeout_ms), &answer, &size);
  if (error != 0) return error;
  if (size < sizeof answer.status) return EPROTO;
  answer.status = le32toh(answer.status);
  if (status != nullptr) *status = answer.status;
  if (answer.status != 0 && result != nullptr) {
    *result = {};
    result->peer_present = 'N';
    strcpy(result->reason, "the daemon does not know this request");
  }
  if (answer.status != 0) return ECANCELED;
  if (result == nullptr) return 0;
  answer.result.peer_present = le32toh(answer.result.peer_present);
  if (size != sizeof answer || !is_record(answer.result)) return EPROTO;
  *result = answer.result;
  return result->success != 0 ? 0 : ECANCELED;
}
