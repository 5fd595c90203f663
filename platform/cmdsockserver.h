#ifndef PLATFORM_CMDSOCKSERVER_H_
#define PLATFORM_CMDSOCKSERVER_H_

#include <pthread.h>
#include <stdint.h>

// The server of local commands. Number N is the AF_UNIX SOCK_SEQPACKET socket /var/run/em/cmd.N,
// mode 0600, open to root and the daemon's own user. A request packet is a 32-bit message type and
// at most 64 KiB of message, a response packet a 32-bit status and the attached payload, both
// little-endian; a connection may carry any number of them, one after the other.

// printf format of a socket's path, given its number.
constexpr char kCmdSocketFormat[] = "/var/run/em/cmd.%d";

constexpr uint32_t kCmdMaxMessageSize = 64 * 1024;

struct CmdRsp;  // one response under construction, valid until the handler returns

// Answers one request; runs on a thread that serves this connection alone, many at once. Returns
// the status of the response. `message` is not terminated and belongs to the server.
using CmdHandler = uint32_t (*)(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp);

struct CmdConnections;  // the server's own bookkeeping

struct CmdServer {
  pthread_t thread;  // the accepting thread; joinable once cmd_server_start has succeeded
  int number;
  int listen_fd;
  int stop_fd;  // eventfd that ends the accepting thread
  CmdHandler handler;
  CmdConnections* connections;
};

// Binds the socket of `number`. A stale socket file is replaced; nullptr, logged with the reason,
// when another process still answers on it or it cannot be made. The server lives as long as the
// process.
CmdServer* cmd_server_create(int number, CmdHandler handler);

// Starts the accepting thread. Returns 0 or an error number.
int cmd_server_start(CmdServer* server);

// Stops accepting; the accepting thread gives the handlers in flight at most 5 s to answer, and
// ends. One that waits for what stops as well gets no answer. Returns at once: join
// `server->thread` to wait.
void cmd_server_shutdown(CmdServer* server);

// Copies `size` bytes as the payload of the response, replacing an earlier one.
void cmd_rsp_attach_payload(const void* payload, uint32_t size, CmdRsp* rsp);

// Takes over a descriptor, which travels with the response (SCM_RIGHTS). Once in a response.
void cmd_rsp_attach_descriptor(int fd, CmdRsp* rsp);

#endif  // PLATFORM_CMDSOCKSERVER_H_
