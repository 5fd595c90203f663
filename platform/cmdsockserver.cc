#include "platform/cmdsockserver.h"

#include <endian.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "platform/descriptor.h"
#include "platform/mutex.h"
#include "platform/util.h"

struct CmdRsp {
  std::vector<uint8_t> payload;
  Descriptor descriptor;
};

namespace {

constexpr int kMaxConnections = 256;
constexpr int kListenBacklog = 64;
constexpr int kGraceSeconds = 5;     // for running handlers at shutdown
constexpr int kSendSeconds = 5;      // for a client to accept its answer
constexpr int kAcceptPauseMs = 100;  // after accept failed for lack of descriptors or memory
constexpr int kFreeSlot = -1;
constexpr size_t kTypeSize = sizeof(uint32_t);
// Small, because 256 stacks must fit into the address space of a 32-bit process.
constexpr size_t kWorkerStackSize = size_t{512} * 1024;

struct Connection {
  CmdServer* server;
  int fd;  // kFreeSlot if the slot is free
};

}  // namespace

struct CmdConnections {
  Mutex mutex;
  pthread_cond_t changed;      // signals the accepting thread that a connection ended
  pthread_cond_t handed_over;  // signals the idle worker that `next` is set or the server stops
  bool stopping GUARDED_BY(mutex);
  int count GUARDED_BY(mutex);
  bool idle_worker GUARDED_BY(mutex);  // a worker waits for the next connection
  Connection* next GUARDED_BY(mutex);
  Connection slots[kMaxConnections] GUARDED_BY(mutex);
};

namespace {

sockaddr_un socket_address(int number) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, kCmdSocketFormat, number);
  return address;
}

Descriptor open_socket() {
  return Descriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

// Removes a socket file that no process listens on. Returns false with errno set if the path is in
// use.
bool remove_stale_socket(const sockaddr_un& address) {
  struct stat info;
  if (lstat(address.sun_path, &info) != 0) return errno == ENOENT;
  if (!S_ISSOCK(info.st_mode)) {
    errno = EEXIST;
    return false;
  }
  const Descriptor probe = open_socket();
  if (!probe.is_open()) return false;
  const int rc = connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  if (rc == 0 || errno != ECONNREFUSED) {
    errno = EADDRINUSE;
    return false;
  }
  return unlink(address.sun_path) == 0;
}

int listen_on(int number) {
  const sockaddr_un address = socket_address(number);
  mkdir("/var/run/em", 0755);
  if (!remove_stale_socket(address)) return -1;
  Descriptor listener = open_socket();
  if (!listener.is_open()) return -1;
  // bind(2) gives the file the mode of the descriptor, so it is never open to other users. The
  // chmod is for a umask that removes bits of the owner.
  if (fchmod(listener.get(), 0600) == 0 &&
      bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      chmod(address.sun_path, 0600) == 0 && listen(listener.get(), kListenBacklog) == 0)
    return listener.release();
  return -1;
}

bool peer_is_allowed(int fd) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  return peer.uid == 0 || peer.uid == geteuid();
}

bool server_is_stopping(CmdConnections* connections) {
  const MutexLock lock(connections->mutex);
  return connections->stopping;
}

// Receives one request packet of at most `room` bytes. Returns its size; 0 at the end of the
// connection and for an invalid packet.
size_t receive_request(int fd, uint8_t* packet, size_t room) {
  ssize_t size;
  do {
    size = recv(fd, packet, room, MSG_TRUNC);
  } while (size < 0 && errno == EINTR);
  const bool valid = size >= static_cast<ssize_t>(kTypeSize) && size <= static_cast<ssize_t>(room);
  return valid ? static_cast<size_t>(size) : 0;
}

bool send_response(int fd, uint32_t status, CmdRsp* response) {
  uint32_t wire_status = htole32(status);
  iovec parts[] = {{&wire_status, sizeof wire_status},
                   {response->payload.data(), response->payload.size()}};
  msghdr packet = {};
  packet.msg_iov = parts;
  packet.msg_iovlen = 2;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  if (response->descriptor.is_open()) {
    packet.msg_control = control;
    packet.msg_controllen = sizeof control;
    cmsghdr* rights = CMSG_FIRSTHDR(&packet);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    const int passed = response->descriptor.get();
    memcpy(CMSG_DATA(rights), &passed, sizeof passed);
  }
  return sendmsg(fd, &packet, MSG_NOSIGNAL) ==
         static_cast<ssize_t>(sizeof wire_status + response->payload.size());
}

void serve_requests(const Connection& connection) {
  uint8_t packet[kTypeSize + kCmdMaxMessageSize];
  while (const size_t size = receive_request(connection.fd, packet, sizeof packet)) {
    if (server_is_stopping(connection.server->connections)) return;
    uint32_t type;
    memcpy(&type, packet, kTypeSize);
    CmdRsp response;
    const uint32_t status = connection.server->handler(
        le32toh(type), packet + kTypeSize, static_cast<uint32_t>(size - kTypeSize), &response);
    if (!send_response(connection.fd, status, &response)) return;
  }
}

void free_slot(Connection* connection) {
  CmdConnections* connections = connection->server->connections;
  const MutexLock lock(connections->mutex);
  close(connection->fd);
  connection->fd = kFreeSlot;
  --connections->count;
  pthread_cond_signal(&connections->changed);
}

// Waits for the next connection. Returns null, which ends this worker, if another worker already
// waits or the server stops.
Connection* wait_for_connection(CmdConnections* connections) {
  const MutexLock lock(connections->mutex);
  if (connections->idle_worker) return nullptr;
  connections->idle_worker = true;
  while (connections->next == nullptr && !connections->stopping)
    pthread_cond_wait(&connections->handed_over, &connections->mutex);
  connections->idle_worker = false;
  return std::exchange(connections->next, nullptr);
}

void* serve_connections(void* argument) {
  Connection* connection = static_cast<Connection*>(argument);
  CmdConnections* connections = connection->server->connections;
  while (connection != nullptr) {
    serve_requests(*connection);
    free_slot(connection);
    connection = wait_for_connection(connections);
  }
  return nullptr;
}

// Takes a slot for `fd`. Null if there is no free slot.
Connection* take_slot(CmdServer* server, int fd) {
  CmdConnections* connections = server->connections;
  const MutexLock lock(connections->mutex);
  for (Connection& slot : connections->slots) {
    if (slot.fd != kFreeSlot) continue;
    slot = {server, fd};
    ++connections->count;
    return &slot;
  }
  return nullptr;
}

// Passes the connection to the idle worker. Returns false if there is none. Most callers send one
// request, and a new thread for each would cost as much as all other work of the server.
bool hand_over(Connection* connection) {
  CmdConnections* connections = connection->server->connections;
  {
    const MutexLock lock(connections->mutex);
    if (!connections->idle_worker || connections->next != nullptr) return false;
    connections->next = connection;
  }
  pthread_cond_signal(&connections->handed_over);
  return true;
}

bool start_worker(Connection* connection) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setstacksize(&attributes, kWorkerStackSize);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  const int rc = Create_Thread(&thread, &attributes, serve_connections, connection, "cmd_worker");
  pthread_attr_destroy(&attributes);
  return rc == 0;
}

void accept_connection(CmdServer* server) {
  // cppcheck-suppress nullPointer; the address is not needed
  Descriptor accepted(accept4(server->listen_fd, nullptr, nullptr, SOCK_CLOEXEC));
  if (!accepted.is_open()) {
    // Without free descriptors the listener stays readable. Wait instead of spinning.
    pollfd stop = {server->stop_fd, POLLIN, 0};
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
      poll(&stop, 1, kAcceptPauseMs);
    return;
  }
  const timeval limit = {kSendSeconds, 0};
  if (!peer_is_allowed(accepted.get()) ||
      setsockopt(accepted.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) {
    return;
  }
  Connection* connection = take_slot(server, accepted.get());
  if (connection == nullptr) return;
  accepted.release();
  if (!hand_over(connection) && !start_worker(connection)) free_slot(connection);
}

void accept_until_stopped(CmdServer* server) {
  pollfd fds[] = {{server->listen_fd, POLLIN, 0}, {server->stop_fd, POLLIN, 0}};
  while (fds[1].revents == 0) {
    if (poll(fds, 2, -1) < 0) fds[0].revents = fds[1].revents = 0;
    if (fds[0].revents != 0 && fds[1].revents == 0) accept_connection(server);
  }
}

// Wakes the workers that wait for a request and waits for running handlers.
void drain_connections(CmdConnections* connections) {
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += kGraceSeconds;
  const MutexLock lock(connections->mutex);
  connections->stopping = true;
  pthread_cond_signal(&connections->handed_over);
  for (const Connection& slot : connections->slots) {
    if (slot.fd != kFreeSlot) shutdown(slot.fd, SHUT_RD);
  }
  int rc = 0;
  while (connections->count > 0 && rc != ETIMEDOUT)
    rc = pthread_cond_timedwait(&connections->changed, &connections->mutex, &deadline);
}

void* accept_thread_fn(void* argument) {
  CmdServer* server = static_cast<CmdServer*>(argument);
  accept_until_stopped(server);
  // Unlinked while still listening, so it cannot be the socket of a successor.
  unlink(socket_address(server->number).sun_path);
  close(server->listen_fd);
  drain_connections(server->connections);
  return nullptr;
}

CmdConnections* make_connections() {
  CmdConnections* connections = new CmdConnections{};
  for (Connection& slot : connections->slots)
    slot.fd = kFreeSlot;
  pthread_mutex_init(&connections->mutex, nullptr);
  _brel_cond_init(&connections->changed);
  _brel_cond_init(&connections->handed_over);
  return connections;
}

}  // namespace

CmdServer* cmd_server_create(int number, CmdHandler handler) {
  Descriptor stop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  const int listen_fd = stop.is_open() ? listen_on(number) : -1;
  if (listen_fd < 0) {
    DbgOutput(__FILE__, __LINE__, __func__, 3, "Could not create command socket '%s': %s",
              socket_address(number).sun_path, strerror(errno));
    return nullptr;
  }
  // Never freed: a worker whose handler does not return may outlive the accepting thread.
  return new CmdServer{pthread_t{}, number, listen_fd, stop.release(), handler, make_connections()};
}

int cmd_server_start(CmdServer* server) {
  return Create_Thread(&server->thread, nullptr, accept_thread_fn, server, "cmd_server");
}

void cmd_server_shutdown(CmdServer* server) {
  const uint64_t one = 1;
  // Fails only if the counter is full. Then the thread is awake already.
  [[maybe_unused]] const ssize_t written = write(server->stop_fd, &one, sizeof one);
}

void cmd_rsp_attach_payload(const void* payload, uint32_t size, CmdRsp* rsp) {
  const uint8_t* bytes = static_cast<const uint8_t*>(payload);
  rsp->payload.assign(bytes, bytes + size);
}

void cmd_rsp_attach_descriptor(int fd, CmdRsp* rsp) {
  rsp->descriptor.reset(fd);
}
