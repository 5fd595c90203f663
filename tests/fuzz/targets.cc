// libFuzzer for one parser of bytes from outside, selected by the variable FUZZ_TARGET. First
// writes inputs that chance would hardly find to the directory corpus/FUZZ_TARGET.

#include <errno.h>
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/cmdsockserver.h"
#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/catalog/pinned_path.h"
#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/exchange/reconcile.h"
#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/rpc/diagnostics.h"
#include "redundancy_health/transfer/outgoing.h"
#include "redundancy_health/transfer/update_message.h"
#include "redundancy_health/transport/exchange_outcome.h"
#include "redundancy_health/transport/sync_thread.h"
#include "tests/fuzz/sandbox.h"
#include "tests/unit/scripted_cpg.h"
#include "tools/exchange_trace.h"
#include "tools/ladder.h"

namespace {

using Input = FuzzedDataProvider;

SyncContext* const ctx = &g_context;
constexpr uint32_t kOwnNode = 1;
constexpr uint32_t kPeerNode = 2;
constexpr uint32_t kPeerExchange = 7;

template <typename Record>
std::string record_bytes(const Record& record) {
  return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

void send_from_peer(uint32_t command, uint32_t exchange_id, uint32_t sequence_id,
                    const std::string& payload) {
  CpgHeader header = {kCpgMagic, command, 0, exchange_id, sequence_id, {}};
  storage_cfg_set_result(&header.result, 0, nullptr);
  deliver_from_peer(record_bytes(header) + payload);
}

void deliver_answer(uint32_t command, const std::string& payload) {
  send_from_peer(command, ctx->cur_exchange_id, ctx->cur_sequence_id, payload);
}

// The peer takes the lock and sends a request.
void serve_peer(uint32_t command, const std::string& payload) {
  send_from_peer(MSG_LOCK_REQ, kPeerExchange, 0, {});
  send_from_peer(command, kPeerExchange, 1, payload);
}

// A chunk of ten bytes, or a request for it, with a mostly valid header.
std::string make_update(uint32_t type, const std::string& path, uint32_t file_size) {
  const UpdateHeader header = {type, 1, 1, {}, kThisEmRoot, 0, {}, 0, file_size, 0, 10};
  return record_bytes(header) + path + '\0' + "0123456789";
}

// An exchange of the daemon, up to the comparison with this listing of the peer.
void start_comparison(const std::string& listing) {
  ctx->rpc_stage = RPC_LOCAL_BUSY;
  ctx->cur_exchange_em_is_active = 1;
  on_sync_state_change(ctx, ON_SYNC_REQ, kOwnNode, nullptr, nullptr, 0);
  if (ctx->cur_state != ST_LOCKREQ) return;
  deliver_own(SentMessage(g_cpg.sent.back()));
  deliver_answer(MSG_LISTING_ACK, listing);
}

// Answers the last update request as a peer that applied it.
void accept_update() {
  std::string answer = g_cpg.sent.empty() ? "" : g_cpg.sent.back().payload;
  if (!answer.empty()) answer[0] = static_cast<char>(PUSH_ACK);  // nothing to write
  deliver_answer(MSG_UPDATE_ACK, answer);
}

// A local request; the caller's bytes are freed when it has its answer.
void request(const std::string& message) {
  static std::vector<uint8_t> posted;
  posted = std::vector<uint8_t>(message.begin(), message.end());
  ctx->rpc_msg = posted.data();
  ctx->current_rpc_size = static_cast<uint32_t>(posted.size());
  ctx->rpc_stage = RPC_REQUESTING;
  if (ctx->cur_state != ST_UNLOCKED) {
    ctx->rpc_deferred = 1;
  } else {
    on_sync_rpc_update(ctx);
  }
}

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

void group_step(Input* in, size_t* delivered) {
  constexpr size_t kShort = 40;  // a longer text would leave no input for further steps
  const bool idle = ctx->rpc_stage == RPC_IDLE;
  switch (in->ConsumeIntegralInRange(0, 10)) {
    case 0:
      if (*delivered < g_cpg.sent.size()) deliver_own(SentMessage(g_cpg.sent[(*delivered)++]));
      break;
    case 1:
      return accept_update();
    case 2:
      return send_from_peer(in->ConsumeIntegralInRange(0U, 5U),
                            in->ConsumeBool() ? kPeerExchange : ctx->cur_exchange_id,
                            ctx->cur_sequence_id, in->ConsumeRandomLengthString(kShort));
    case 3: {
      std::string message = in->ConsumeRandomLengthString();
      if (in->ConsumeBool()) message.replace(0, sizeof kCpgMagic, record_bytes(kCpgMagic));
      return in->ConsumeBool() ? deliver_own(message) : deliver_from_peer(message);
    }
    case 4:
      return change_membership(in->ConsumeIntegral<uint8_t>());
    case 5:
      if (idle) request(in->ConsumeBool() ? std::string(2, '\0') : "x");
      break;
    case 6:
      if (idle) start_comparison(in->ConsumeRandomLengthString(kShort));
      break;
    case 7:
      return end_exchange_error(ctx, "Operation timed out");
    case 8:
      g_cpg.mcast_results.push_back(CS_ERR_LIBRARY);
      break;
    case 9:
      return serve_peer(MSG_LISTING_REQ, in->ConsumeRandomLengthString(kShort));
    case 10:
      return serve_peer(
          MSG_UPDATE_REQ,
          make_update(in->ConsumeIntegralInRange(0U, 6U),
                      in->PickValueInArray({"small", "dir/new", "file_link", "link/file"}),
                      in->ConsumeIntegral<uint8_t>()));
  }
}

void fuzz_group(Input* in) {
  size_t delivered = 0;
  start_run(in->ConsumeBool());
  while (in->remaining_bytes() > 0) {
    group_step(in, &delivered);
    if (ctx->rpc_stage == RPC_COMPLETE) ctx->rpc_stage = RPC_IDLE;  // as a waiting caller does
  }
}

// A listing of the peer, then an exchange in which every update is accepted.
void fuzz_listing(Input* in) {
  start_run(true);
  start_comparison(in->ConsumeRemainingBytesAsString());
  for (int i = 0; i < 40 && ctx->cur_state == ST_UPDATE && !ctx->cpg_result.canceled; ++i)
    accept_update();
}

// The payload of one update message, to the daemon that serves and to the one that asked.
void fuzz_update(Input* in) {
  const std::string payload = in->ConsumeRemainingBytesAsString();
  start_run(false);
  serve_peer(MSG_UPDATE_REQ, payload);
  ctx->cur_state = ST_UPDATE;
  reset_cpg_result(ctx);
  deliver_answer(MSG_UPDATE_ACK, payload);
}

// A digest cache file, read by the scans of both sides and by the updates; its header may be valid.
void fuzz_digest(Input* in) {
  start_run(true);
  const std::string dir = std::string(root_paths[kThisEmRoot]) + "dir/";
  const size_t size = in->ConsumeBool() ? kChunkSize + 1 : 10;
  const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
  std::ofstream(dir + "data") << std::string(size, 'x');
  if (utimensat(0, (dir + "data").c_str(), times, 0) != 0) abort();
  std::ofstream(dir + ".$SyncDigest$data")
      << (in->ConsumeBool() ? "Digest-V1 " + std::to_string(size) + " 1000000000\n" : "")
      << in->ConsumeRemainingBytesAsString();
  ctx->cur_exchange_em_is_active = 1;
  compare_synced_files(ctx, nullptr, 0);  // to an empty peer, everything must be sent
  while (ctx->update_queue != nullptr)
    update_next_chunk(ctx);
  ctx->cur_state = ST_UNLOCKED;
  reset_cpg_result(ctx);
  serve_peer(MSG_LISTING_REQ, {});
}

// A local caller may move any file of this EM into the trees, so it must not be one of the sandbox.
bool moves_from_outside(const char* source) {
  char resolved[PATH_MAX];
  if (*source == '\0' || realpath(source, resolved) == nullptr) return false;
  const char* root = strstr(resolved, "/replicated_by_");
  return root == nullptr || strchr(root + 1, '/') == nullptr;
}

// The message of a local request.
void fuzz_rpc(Input* in) {
  start_run(in->ConsumeBool());
  const std::string message = in->ConsumeRemainingBytesAsString();
  if (!moves_from_outside(message.c_str())) request(message);
}

// The rename of a request, repeated here before the listing.
void fuzz_repeat(Input* in) {
  start_run(in->ConsumeBool());
  serve_peer(MSG_LISTING_REQ, in->ConsumeRemainingBytesAsString());
}

void run_command(const std::string& command) {
  const auto message = std::make_unique<uint8_t[]>(command.size());  // of the exact size
  memcpy(message.get(), command.data(), command.size());
  run_diagnostic(message.get(), static_cast<uint32_t>(command.size()));
}

// Diagnostic commands, each followed by a log line with the resulting settings.
void fuzz_diagnostic(Input* in) {
  start_run(true);
  for (int i = 0; i < 8 && in->remaining_bytes() > 0; ++i) {
    const std::string command = in->ConsumeRandomLengthString();
    // "sync" would wait for an exchange, which nobody runs here.
    if (command.substr(0, command.find_first_of(std::string("=\0", 2))) == "sync") continue;
    run_command(command);
    LOG(3, "after '%s'", command.c_str());
  }
  for (const char* command :
       {"fail-none", "log-size=0", "flight-rec=500", "flight-rec=resume", "stats=reset"})
    run_command(command);
}

// Reads every byte, and answers with any status and a size up to that of the request.
uint32_t answer_command(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp) {
  std::vector<uint8_t> copy(message, message + size);
  if (type % 3 != 0) cmd_rsp_attach_payload(copy.data(), type % 3 == 2 ? size / 2 : size, rsp);
  return type;
}

// Packets to the command socket of a real server. Every packet is answered, or its connection is
// closed.
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
  while (received > 0 && in->remaining_bytes() > 0) {
    std::string packet = in->ConsumeRandomLengthString();
    packet.resize(packet.size() << in->ConsumeIntegralInRange(0, 8));  // lengthens short inputs
    if (send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) < 0) break;
    do {  // interrupted by the fuzzer's timer, which also ends a hang
      received = recv(fd, response, sizeof response, 0);
    } while (received < 0 && errno == EINTR);
  }
  close(fd);
}

// The logs of two EMs, explained by the client.
void fuzz_trace(Input* in) {
  std::istringstream logs[] = {std::istringstream(in->ConsumeRandomLengthString()),
                               std::istringstream(in->ConsumeRemainingBytesAsString())};
  TraceReader readers[2] = {{.log = 0}, {.log = 1}};
  LogSource source;
  for (int log : {0, 1})
    read_trace(&logs[log], &source,
               [&](const TraceLine& line, bool) { take_trace_line(&readers[log], line); });
  const JoinedExchanges joined =
      join_exchanges(std::move(readers[0].found), std::move(readers[1].found));
  for (const TracedExchange& exchange : joined.all) {
    clock_text(exchange.begin, true);
    draw_text(make_rungs(exchange), "1", "2");
    draw_svg(make_rungs(exchange), exchange.why + exchange.failure, "1", "2");
  }
}

// A user who may write to a tree and works there at the same time as the daemon. Uses directories
// that are held open, so that it never changes anything outside itself.
class TreeAttacker {
 public:
  TreeAttacker(uint32_t root_index, uint32_t seed)
      : root_(open(root_paths[root_index], O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
        dir_(openat(root_, "dir", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)),
        random_(seed) {
    // An earlier run may have left the symlink.
    if (dir_ < 0) dir_ = openat(root_, "link_dir", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    static_cast<void>(symlinkat("/mnt/canary/dir", root_, "link_dir"));
    thread_ = std::thread([this] {
      while (!stop_)
        act();
    });
  }
  TreeAttacker(const TreeAttacker&) = delete;
  TreeAttacker& operator=(const TreeAttacker&) = delete;
  ~TreeAttacker() {
    stop_ = true;
    thread_.join();
    close(root_);
    close(dir_);
  }

 private:
  int put(const char* name, const char* text) const {
    const int fd = openat(dir_, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd >= 0 && write(fd, text, strlen(text)) < 0) abort();
    return fd < 0 ? fd : close(fd);
  }

  // A failure means a lost race.
  void act() {
    const char* name = std::array{"file", "data", "new"}[random_() % 3];
    const auto swap = [this] {
      return renameat2(root_, "dir", root_, "link_dir", RENAME_EXCHANGE);
    };
    const auto replace = [&](auto make) { return unlinkat(dir_, name, 0) + make(); };
    const std::function<int()> acts[] = {
        swap,
        swap,
        swap,
        [&] { return renameat2(dir_, "deep", dir_, "link", RENAME_EXCHANGE); },
        [&] { return replace([&] { return mkfifoat(dir_, name, 0666); }); },
        [&] { return replace([&] { return linkat(root_, "small", dir_, name, 0); }); },
        [&] { return replace([&] { return symlinkat("/mnt/canary/file", dir_, name); }); },
        [&] { return replace([&] { return put(name, "content"); }); },
        [&] { return put(".$SyncDigest$file", "Digest-V1 10 1\n"); },
        [&] { return symlinkat("/mnt/canary/file", dir_, ".$SyncDigest$data"); },
    };
    static_cast<void>(acts[random_() % std::size(acts)]());
  }

  int root_;
  int dir_;
  std::minstd_rand random_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// One step of an exchange on a tree that another user changes at the same time.
void fuzz_trees(Input* in) {
  start_run(false);
  const uint32_t seed = in->ConsumeIntegral<uint32_t>();
  const char* name =
      in->PickValueInArray({"dir/file", "dir/deep/file", "dir/new", "dir/data", "dir"});
  const int step = in->ConsumeIntegralInRange(0, 4);
  const std::string nul(1, '\0');
  const std::string own = root_paths[kThisEmRoot];
  const TreeAttacker attacker(step == 3 ? kThisEmRoot : kOtherEmRoot, seed);
  for (int i = 0; i < 8; ++i) {
    reset_cpg_result(ctx);
    switch (step) {
      case 0:
        start_comparison("");  // deletes the copies
        break;
      case 1:
        serve_peer(MSG_LISTING_REQ, own + "small" + nul + own + name + nul);
        break;
      case 2:  // in place
        serve_peer(MSG_UPDATE_REQ, make_update(PUSH_REQ, name, 11));
        break;
      case 3:
        request((i % 2 == 0 ? own + "dir/data" : "") + nul + own + name + nul);
        break;
      case 4:
        serve_peer(MSG_UPDATE_REQ, make_update(in->ConsumeIntegralInRange(0U, 4U), name, 10));
        break;
    }
    free_file_list(&ctx->update_queue);
    ctx->cur_state = ST_UNLOCKED;
    ctx->rpc_stage = RPC_IDLE;
  }
  release_kept_directory();
}

struct Target {
  void (*run)(Input*);
  bool plants_trees;  // otherwise they are empty, and only the bytes matter
  unsigned runs_per_look = 1000;
};

const std::map<std::string, Target> kTargets = {
    {"group", {fuzz_group, true}},      {"listing", {fuzz_listing, false}},
    {"update", {fuzz_update, true}},    {"digest", {fuzz_digest, true}},
    {"rpc", {fuzz_rpc, true}},          {"repeat", {fuzz_repeat, true}},
    {"command", {fuzz_command, false}}, {"diagnostic", {fuzz_diagnostic, false}},
    {"trace", {fuzz_trace, false}},     {"trees", {fuzz_trees, true, 10}},
};
void (*g_run)(Input*);

// Lines with digests of the planted files, and headers of a valid update.
void write_seeds(const std::string& target) {
  std::vector<std::string> seeds;
  start_run(true);
  if (target == "digest") {
    std::ifstream file(std::string(root_paths[kThisEmRoot]) + ".$SyncDigest$large");
    std::getline(file, seeds.emplace_back());
    std::getline(file, seeds.emplace_back(), '\0');  // the lines after the header
  } else if (target == "listing") {
    serve_peer(MSG_LISTING_REQ, {});
    seeds.push_back(g_cpg.sent.back().payload);
  } else if (target == "update") {
    for (uint32_t type = PULL_REQ; type < PUSH_NOP; ++type)
      for (const char* path : {"small", "dir/new", "file_link"})
        seeds.push_back(make_update(type, path, 10));
  } else if (target == "rpc" || target == "repeat") {
    const std::string root = root_paths[kThisEmRoot];
    const std::string nul(1, '\0');
    seeds = {nul + nul, nul + root + "small" + nul, root + "small" + nul + root + "dir/new" + nul,
             root + "link/file" + nul + root_paths[kActiveVolatileRoot] + "link/new" + nul};
  } else if (target == "diagnostic") {
    const std::string path = root_paths[kThisEmRoot] + std::string("small");
    seeds = {"exit\\;cpg-send-fail\\;statemachine-stuck\\;log-size=900\\;stats=dump\\;sync",
             "flight-rec=dump\\;flight-rec=3\\;flight-rec=pause\\;fail-rename=x\\;fail-write=x",
             "fail-scan=" + path, "fail-read=" + path};
  }
  if (target == "trace") {
    run_command("log-size=-1");
    start_comparison("P " + std::string(40, 'a') + " 00000000 00000003 G theirs");
    while (ctx->cur_state == ST_UPDATE)
      accept_update();
    std::ifstream log("/tmp/cluster_sync_daemon.log");
    while (std::getline(log, seeds.emplace_back()))
      seeds.back() += '\n';
    run_command("log-size=0");
  }
  int number = 0;
  for (const std::string& seed : seeds)
    for (const char* choices : {"", "00", "01", "10", "11"})  // read from the end of an input
      std::ofstream("corpus/" + target + "/seed" + std::to_string(number++)) << seed + choices;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const std::string target = getenv("FUZZ_TARGET");
  enter_sandbox(kTargets.at(target).plants_trees, kTargets.at(target).runs_per_look);
  write_seeds(target);
  g_run = kTargets.at(target).run;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  g_run(&in);
  end_run();
  return 0;
}
