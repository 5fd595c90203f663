// A connection to the command socket, which carries requests and answers as packets.

#include "client/connection.h"

#include <endian.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Makes connect(2) wait until the time limit, and then fail with EAGAIN.
int let_connect_wait(int fd, const Deadline& deadline) {
  const int left = deadline.left_ms();
  if (left == 0) return ETIMEDOUT;
  timeval limit = {};  // all zero: no limit
  if (left > 0) {
    limit.tv_sec = left / 1000;
    limit.tv_usec = left % 1000 * 1000L;
  }
  if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) return errno;
  return fcntl(fd, F_SETFL, 0) == 0 ? 0 : errno;
}

// Expects a non-blocking descriptor.
int connect_within(int fd, const sockaddr_un& address, const Deadline& deadline) {
  while (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno == ENOENT) return ECONNREFUSED;
    if (errno != EINTR && errno != EAGAIN) return errno;
    const int error = let_connect_wait(fd, deadline);
    if (error != 0) return error;
  }
  return 0;
}

int wait_ready(int fd, short events, const Deadline& deadline) {
  for (;;) {
    pollfd ready = {fd, events, 0};
    const int count = poll(&ready, 1, deadline.left_ms());
    if (count > 0) return 0;
    if (count == 0) return ETIMEDOUT;
    if (errno != EINTR) return errno;
  }
}

bool has_hung_up(int fd) {
  pollfd state = {fd, 0, 0};
  return poll(&state, 1, 0) > 0 && (state.revents & POLLHUP) != 0;
}

int send_packet(int fd, const msghdr& packet, const Deadline& deadline) {
  while (sendmsg(fd, &packet, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
    if (errno == EPIPE) return ECONNRESET;
    if (errno != EINTR && errno != EAGAIN) return errno;
    const int error = errno == EAGAIN ? wait_ready(fd, POLLOUT, deadline) : 0;
    if (error != 0) return error;
  }
  return 0;
}

// Receives the next packet and stores its whole size in `*size`.
int receive_packet(int fd, msghdr* packet, const Deadline& deadline, size_t* size) {
  for (;;) {
    const int error = wait_readable(fd, deadline);
    if (error != 0) return error == ETIMEDOUT ? EAGAIN : error;
    const ssize_t n = recvmsg(fd, packet, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC);
    if (n == 0) return ECONNRESET;
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n < 0) return errno;
    *size = static_cast<size_t>(n);
    return 0;
  }
}

// The descriptor that came with a packet, or -1.
int take_descriptor(msghdr* packet) {
  int descriptor = -1;
  const cmsghdr* rights = CMSG_FIRSTHDR(packet);
  if (rights != nullptr && rights->cmsg_type == SCM_RIGHTS &&
      rights->cmsg_len == CMSG_LEN(sizeof descriptor))
    memcpy(&descriptor, CMSG_DATA(rights), sizeof descriptor);
  return descriptor;
}

}  // namespace

int wait_readable(int fd, const Deadline& deadline) {
  return wait_ready(fd, POLLIN, deadline);
}

int cluster_sync_open(const char* socket_path, int timeout_ms,
                      cluster_sync_connection** connection) {
  const Deadline deadline(timeout_ms);
  if (connection == nullptr) return EINVAL;
  if (socket_path == nullptr) socket_path = CLUSTER_SYNC_SOCKET;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (strlen(socket_path) >= sizeof address.sun_path) return ENAMETOOLONG;
  strcpy(address.sun_path, socket_path);
  auto* made = static_cast<cluster_sync_connection*>(calloc(1, sizeof **connection));
  if (made == nullptr) return ENOMEM;
  made->put = kNoPut;
  made->fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int error = made->fd < 0 ? errno : connect_within(made->fd, address, deadline);
  if (error != 0) {
    cluster_sync_close(made);
    return error;
  }
  *connection = made;
  return 0;
}

void cluster_sync_close(cluster_sync_connection* connection) {
  if (connection == nullptr) return;
  discard_put(&connection->put);
  if (connection->fd >= 0) close(connection->fd);
  free(connection);
}

int cluster_sync_fd(const cluster_sync_connection* connection) {
  return connection->fd;
}

int send_request(cluster_sync_connection* connection, RequestType type, const iovec* message,
                 size_t count, const Deadline& deadline) {
  if (connection->is_asked || connection->put.fd >= 0) return EBUSY;
  uint32_t wire_type = htole32(type);
  iovec parts[3] = {{&wire_type, sizeof wire_type}, {}, {}};
  for (size_t i = 0; i < count; ++i)
    parts[1 + i] = message[i];
  msghdr packet = {};
  packet.msg_iov = parts;
  packet.msg_iovlen = 1 + count;
  const int error = send_packet(connection->fd, packet, deadline);
  connection->is_lost = error == ECONNRESET;
  if (error != 0) return error;
  connection->is_asked = true;
  connection->request = type;
  connection->source[0] = '\0';
  return 0;
}

int receive_answer(cluster_sync_connection* connection, RequestType type, const Deadline& deadline,
                   Answer* answer) {
  if (connection->is_lost) return ECONNRESET;
  if (!connection->is_asked || connection->request != type)
    return has_hung_up(connection->fd) ? ECONNRESET : ENOMSG;
  uint32_t status = 0;
  iovec parts[] = {{&status, sizeof status}, {answer->payload, answer->room}};
  msghdr packet = {};
  packet.msg_iov = parts;
  packet.msg_iovlen = 2;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  if (type == kCompareRequest) {  // only a comparison returns a descriptor
    packet.msg_control = control;
    packet.msg_controllen = sizeof control;
  }
  size_t size = 0;
  const int error = receive_packet(connection->fd, &packet, deadline, &size);
  if (error == EAGAIN) return error;
  connection->is_asked = false;
  connection->is_lost = error == ECONNRESET;
  if (error != 0) return error;
  answer->descriptor = take_descriptor(&packet);
  if (size < sizeof status) return EPROTO;
  answer->status = le32toh(status);
  answer->size = size - sizeof status;
  return answer->status == 0 ? 0 : ECANCELED;
}
