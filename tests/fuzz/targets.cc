// fuzz TARGET [OPTION...]: libFuzzer on one place that takes bytes from outside.
// fuzz seeds DIRECTORY: writes the seed inputs of all targets.

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <memory>
#include <vector>

#include "platform/cmdsockserver.h"
#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/exchange/reconcile.h"
#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/rpc/diagnostics.h"
#include "redundancy_health/rpc/rpc_service.h"
#include "redundancy_health/transfer/outgoing.h"
#include "redundancy_health/transport/exchange_outcome.h"
#include "redundancy_health/transport/sync_thread.h"
#include "tests/fuzz/sandbox.h"

namespace {

SyncContext* const ctx = &g_context;

// Takes an input apart; an exhausted one gives zeros.
struct Input {
  std::string rest;

  uint8_t u8() {
    return static_cast<uint8_t>(bytes(1).append(1, '\0')[0]);
  }
  std::string bytes(size_t count) {  // fewer at the end
    std::string taken = rest.substr(0, count);
    rest.erase(0, count);
    return taken;
  }
  std::string block() {  // a 16-bit length, then as many bytes
    const size_t low = u8();
    return bytes(low | static_cast<size_t>(u8()) << 8);
  }
};

// Any sequence of group messages, membership changes and local events, in every state.

void change_membership(uint8_t flags) {
  const cpg_address members[] = {{kOwnNode, static_cast<uint32_t>(getpid()), 0}, {kPeerNode, 1, 0}};
  const cpg_name group = {7, "em-sync"};
  std::vector<cpg_address> lists[3];
  for (int i = 0; i < 6; ++i)
    if (flags >> i & 1) lists[i / 2].push_back(members[i % 2]);
  on_cpg_config(0, &group, lists[0].data(), lists[0].size(), lists[2].data(), lists[2].size(),
                lists[1].data(), lists[1].size());
}

// Requests that move nothing from outside into the roots.
void request(uint8_t which) {
  const std::string zero(1, '\0');
  const std::string small = std::string(root_paths[kThisEmRoot]) + "small";
  const std::string requests[] = {zero + zero, "x", "", zero + small + zero,
                                  small + zero + small + "2" + zero};
  post_request(requests[which % std::size(requests)]);
  if (ctx->cur_state != ST_UNLOCKED) {
    ctx->rpc_deferred = 1;
  } else {
    on_sync_rpc_update(ctx);
  }
}

void group_step(Input* in, size_t* delivered) {
  const bool idle = ctx->rpc_stage == RPC_IDLE;
  switch (in->u8() % kGroupSteps) {
    case kDeliverOwn:  // the group brings every message back to its sender
      if (*delivered < g_cpg.sent.size()) {
        const SentMessage message = g_cpg.sent[(*delivered)++];
        deliver(kOwnNode, bytes_of(message.header) + message.payload);
      }
      break;
    case kDeliverFitting: {  // of the peer with the ids that the daemon waits for
      const uint32_t command = in->u8() % 6;
      const bool answer = command == MSG_LISTING_ACK || command == MSG_UPDATE_ACK;
      const uint32_t peer_id = command == MSG_LOCK_REQ ? kPeerExchange : ctx->peer_exchange_id;
      deliver(kPeerNode, command, answer ? ctx->cur_exchange_id : peer_id, ctx->cur_sequence_id,
              in->block());
      break;
    }
    case kDeliverAny: {
      const uint32_t node = in->u8() & 1 ? kOwnNode : kPeerNode;
      std::string message = in->block();
      if (in->u8() & 1) message.replace(0, sizeof kCpgMagic, bytes_of(kCpgMagic));
      deliver(node, message);
      break;
    }
    case kMembership:
      change_membership(in->u8());
      break;
    case kRequest:
      if (idle) request(in->u8());
      break;
    case kResync:
      if (idle) start_exchange();
      break;
    case kTimeout:
      end_exchange_error(ctx, "Operation timed out");
      break;
    case kFailSend:
      g_cpg.mcast_results.push_back(CS_ERR_LIBRARY);
      break;
  }
}

void fuzz_group(Input* in) {
  size_t delivered = 0;
  start_run(in->u8() & 1);
  while (!in->rest.empty()) {
    group_step(in, &delivered);
    if (ctx->rpc_stage != RPC_COMPLETE) continue;
    ctx->rpc_stage = RPC_IDLE;  // as a waiting caller does
    ctx->rpc_msg = nullptr;
    ctx->current_rpc_size = 0;
  }
  end_run();
}

// A listing of the peer, then an exchange that gets every update accepted.
void fuzz_listing(Input* in) {
  start_comparison(in->rest);
  for (int i = 0; i < 40 && ctx->cur_state == ST_UPDATE && !ctx->cpg_result.canceled; ++i)
    accept_update();
  end_run();
}

// The payload of one update message, to the daemon that serves and to the one that asked.
void fuzz_update(Input* in) {
  start_run(false);
  lock_by_peer();
  deliver_request(MSG_UPDATE_REQ, in->rest);
  ctx->cur_state = ST_UPDATE;
  reset_cpg_result(ctx);
  deliver(kPeerNode, MSG_UPDATE_ACK, ctx->cur_exchange_id, ctx->cur_sequence_id, in->rest);
  end_run();
}

// A digest cache file beside a data file, as the scans of both sides and the updates meet it. Mode
// bits: 1 a data file that gets a digest cache file of the scan, 2 a header that fits it.
void fuzz_digest(Input* in) {
  start_run(true);
  const uint8_t mode = in->u8();
  const std::string dir = std::string(root_paths[kThisEmRoot]) + "dir/";
  const size_t size = mode & 1 ? kChunkSize + 1 : 10;
  const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
  std::ofstream(dir + "data") << std::string(size, 'x');
  if (utimensat(0, (dir + "data").c_str(), times, 0) != 0) abort();
  const std::string header = "Digest-V1 " + std::to_string(size) + " 1000000000\n";
  std::ofstream(dir + ".$SyncDigest$data") << (mode & 2 ? header : "") << in->rest;

  ctx->cur_exchange_em_is_active = 1;
  compare_synced_files(ctx, nullptr, 0);  // to an empty peer everything is to be sent
  while (ctx->update_queue != nullptr)
    update_next_chunk(ctx);
  reset_cpg_result(ctx);
  deliver(kPeerNode, MSG_LOCK_REL, 0);
  lock_by_peer();
  deliver_request(MSG_LISTING_REQ, "");
  end_run();
}

// A local caller may move any file of this EM into the trees; what it moves is not to be ours.
bool moves_from_outside(const char* source) {
  char resolved[PATH_MAX];
  if (*source == '\0' || realpath(source, resolved) == nullptr) return false;
  const char* root = strstr(resolved, "/replicated_by_");
  return root == nullptr || strchr(root + 1, '/') == nullptr;
}

// The message of a local request, and the same bytes as the peer repeats them.
void fuzz_rpc(Input* in) {
  const uint8_t mode = in->u8();
  start_run(mode & 2);
  if (mode & 1) {
    lock_by_peer();
    deliver_request(MSG_LISTING_REQ, in->rest);
  } else if (!moves_from_outside(in->rest.c_str())) {
    post_request(in->rest);
    on_sync_rpc_update(ctx);
    if (ctx->cur_state == ST_LOCKREQ) {
      deliver(kOwnNode, MSG_LOCK_REQ, ctx->cur_exchange_id);
      deliver(kPeerNode, MSG_LISTING_ACK, ctx->cur_exchange_id);
    }
  }
  end_run();
}

void run_command(const std::string& command) {
  const auto message = std::make_unique<uint8_t[]>(command.size());  // of the exact size
  memcpy(message.get(), command.data(), command.size());
  run_diagnostic(message.get(), static_cast<uint32_t>(command.size()));
}

// Diagnostic commands, one a line, each followed by work under the settings that it left.
void fuzz_diagnostic(Input* in) {
  start_run(true);
  for (int i = 0; i < 8 && !in->rest.empty(); ++i) {
    std::string command = in->bytes(in->rest.find('\n'));
    in->u8();
    // "sync" waits for an exchange that nobody runs here.
    if (command.substr(0, command.find_first_of(std::string("=\0", 2))) == "sync") continue;
    run_command(command);
    LOG(3, "after '%s'", command.c_str());
    lock_by_peer();
    deliver_request(MSG_LISTING_REQ, "");
  }
  for (const char* command :
       {"fail-none", "log-size=0", "flight-rec=500", "flight-rec=resume", "stats=reset"})
    run_command(command);
  unlink("/tmp/cluster_sync_daemon.log");
  unlink("/tmp/cluster_sync_daemon.log.0");
  end_run();
}

// Touches every byte, and answers with any status and size up to the request's own.
uint32_t answer_command(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp) {
  std::vector<uint8_t> copy(message, message + size);
  if (type % 3 != 0) cmd_rsp_attach_payload(copy.data(), type % 3 == 2 ? size / 2 : size, rsp);
  return type;
}

// Packets on the command socket, through a real server. Every packet is answered, or its
// connection is closed.
void fuzz_command(Input* in) {
  static CmdServer* const server = cmd_server_create(1, answer_command);
  static const int started = server == nullptr ? -1 : cmd_server_start(server);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, kCmdSocketFormat, 1);
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (started != 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    abort();
  static char response[kCmdMaxMessageSize + 1024];
  ssize_t received = 1;
  while (received > 0 && !in->rest.empty()) {
    std::string packet = in->block();
    packet.resize(packet.size() * (1 + in->u8()));  // long packets of short inputs
    if (send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) < 0) break;
    do {  // the fuzzer's own timer interrupts, and ends what gets no answer
      received = recv(fd, response, sizeof response, 0);
    } while (received < 0 && errno == EINTR);
  }
  close(fd);
}

const std::map<std::string, void (*)(Input*)> kTargets = {
    {"group", fuzz_group},     {"listing", fuzz_listing}, {"update", fuzz_update},
    {"digest", fuzz_digest},   {"rpc", fuzz_rpc},         {"diagnostic", fuzz_diagnostic},
    {"command", fuzz_command},
};
void (*g_target)(Input*);

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  const std::string target = *argc > 1 ? (*argv)[1] : "";
  enter_sandbox();
  if (target == "seeds" && *argc == 3) {
    write_seeds((*argv)[2]);
    exit(0);
  }
  if (!kTargets.contains(target)) {
    fprintf(stderr, "Usage: fuzz TARGET [OPTION...] or fuzz seeds DIRECTORY\n");
    exit(2);
  }
  g_target = kTargets.at(target);
  (*argv)[1] = (*argv)[0];
  ++*argv;
  --*argc;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in = {std::string(data, data + size)};
  g_target(&in);
  return 0;
}
