#ifndef PLATFORM_CMDSOCKSERVER_H_
#define PLATFORM_CMDSOCKSERVER_H_

#include <pthread.h>
#include <stdint.h>

// The server of local commands. Number N is the AF_UNIX SOCK_SEQPACKET socket /var/run/em/cmd.N,
// mode 0600, open to root and the daemon's own user. A request packet is a 32-bit message type and
// at most 64 KiB of message. A response packet is a 32-bit status and the attached payload. Numbers
// are little-endian. A connection carries any number of requests, one after the other.

// printf format of the path of a socket, given its number.
constexpr char kCmdSocketFormat[] = "/var/run/em/cmd.%d";

constexpr uint32_t kCmdMaxMessageSize = 64 * 1024;

struct CmdRsp;  // one response under construction, valid until the handler returns

// Answers one request and returns the status of the response. Runs on the thread of its connection;
// many run at once. `message` is not terminated and belongs to the server.
using CmdHandler = uint32_t (*)(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp);

struct CmdConnections;  // private to the server

struct CmdServer {
  pthread_t thread;  // the accepting thread; joinable once cmd_server_start has succeeded
  int number;
  int listen_fd;
  int stop_fd;  // eventfd that stops the accepting thread
  CmdHandler handler;
  CmdConnections* connections;
};

// Binds the socket of `number`, replacing a stale socket file. Returns null, with the reason in the
// log, if another process listens on it or it cannot be created. The server is never freed.
CmdServer* cmd_server_create(int number, CmdHandler handler);

// Starts the accepting thread. Returns 0 or an error number.
int cmd_server_start(CmdServer* server);

// Stops accepting. The accepting thread waits at most 5 s for running handlers and then exits;
// later answers are not sent if the process exits. Returns at once; join `server->thread` to wait.
void cmd_server_shutdown(CmdServer* server);

// Copies `size` bytes as the payload of the response. Replaces an earlier payload.
void cmd_rsp_attach_payload(const void* payload, uint32_t size, CmdRsp* rsp);

// Takes ownership of a descriptor and sends it with the response (SCM_RIGHTS). At most one per
// response.
void cmd_rsp_attach_descriptor(int fd, CmdRsp* rsp);

#endif  // PLATFORM_CMDSOCKSERVER_H_
