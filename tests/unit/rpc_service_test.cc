#include "redundancy_health/rpc/rpc_service.h"

#include <string.h>
#include <sys/eventfd.h>

#include <functional>
#include <list>
#include <thread>

#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/exit_flag.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/statistics.h"
#include "redundancy_health/rpc/notification.h"
#include "redundancy_health/transport/exchange_outcome.h"
#include "redundancy_health/transport/sync_thread.h"
#include "tests/unit/daemon_support.h"
#include "tests/unit/update_bytes.h"

namespace {

using Lines = std::vector<std::string>;

std::string request(const std::string& source, const std::string& destination) {
  return source + '\0' + destination + '\0';
}

RpcResult call(const std::string& message) {
  RpcResult result;
  memset(&result, 0xA5, sizeof(result));
  on_rpc_update(&result, reinterpret_cast<const uint8_t*>(message.data()),
                static_cast<uint32_t>(message.size()));
  return result;
}

void wait_until(const std::function<bool()>& condition) {
  while (!condition())
    usleep(1000);
}

class RpcServiceTest : public DaemonTest {
 protected:
  RpcServiceTest() {
    g_flight_recorder.paused = 1;
    ctx->rpc_fd = eventfd(0, 0);
  }
  ~RpcServiceTest() override {
    close(ctx->rpc_fd);
  }

  // The sync side's part, with a request that nobody waits for.
  RpcResult serve(const std::string& message) {
    ctx->rpc_stage = RPC_REQUESTING;
    ctx->rpc_msg = reinterpret_cast<const uint8_t*>(message.data());
    ctx->current_rpc_size = static_cast<uint32_t>(message.size());
    on_sync_rpc_update(ctx);
    return ctx->rpc_result;
  }

  // Runs `body` beside a sync thread whose peer has empty trees and takes every update.
  void with_sync_thread(const std::function<void()>& body) {
    size_t delivered = 0;
    g_cpg.fd = eventfd(1, 0);
    g_cpg.on_dispatch = [&] {
      while (delivered < g_cpg.sent.size()) {
        const SentMessage message = g_cpg.sent[delivered++];
        const uint32_t id = message.header.exchange_id;
        deliver_own(message);
        if (message.header.command == MSG_LISTING_REQ)
          deliver_from_peer(message_bytes(MSG_LISTING_ACK, id, 0));
        if (message.header.command == MSG_UPDATE_REQ)
          deliver_from_peer(message_bytes(MSG_UPDATE_ACK, id, message.header.sequence_id,
                                          update(PUSH_ACK, 0, "any", 0, 0, 0)));
      }
      usleep(1000);
      return CS_OK;
    };
    ctx->state_time = get_uptime();
    pthread_t sync_thread;
    ASSERT_EQ(Create_Thread(&sync_thread, nullptr, sync_thread_fn, ctx, "sync_thread"), 0);
    body();
    set_exit_daemon();
    pthread_join(sync_thread, nullptr);
    close(g_cpg.fd);
  }
};

}  // namespace

TEST_F(RpcServiceTest, ServesARenameADeletionAndASyncOneAfterTheOther) {
  const std::string source = make_file(1, "TempUpdate_new", "new");
  const std::string target = make_file(1, "target", "old");
  const std::string old = make_file(1, "old", "x");
  const std::string messages[] = {request(source, target), request("", old), request("", "")};
  with_sync_thread([&] {
    for (const std::string& message : messages) {
      const RpcResult result = call(message);
      EXPECT_EQ(result.success, 1) << result.reason;
      EXPECT_EQ(result.local_ok, 1);
      EXPECT_EQ(result.remote_ok, 1);
      EXPECT_EQ(result.peer_present, 0x59u);
    }
  });
  EXPECT_EQ(read_file(target), "new");
  EXPECT_FALSE(exists(source));
  EXPECT_FALSE(exists(old));
  EXPECT_EQ(stats.n_atomic_updates_from_self, 1u);
  Lines carried;
  for (const SentMessage& message : g_cpg.sent)
    if (message.header.command == MSG_LISTING_REQ) carried.push_back(message.payload);
  EXPECT_EQ(carried, Lines(messages, messages + 3));
  for (const std::string& line :
       {std::string("RPC update <enter>: backlog=0 path=") + source,
        std::string("RPC update <requesting>: path=") + source,
        "RPC update <complete>: path=" + source + ", (local_ok=1 remote_ok=1 peer_present=Y) ",
        "SYNC RPC rename: src=" + source + " dest=" + target, "SYNC RPC delete: dest=" + old,
        std::string("SYNC running explicit sync request")})
    EXPECT_TRUE(has_logged(line)) << line;
  EXPECT_EQ(+ctx->rpc_stage, RPC_IDLE);
  EXPECT_EQ(+ctx->waiting_rpc_count, 0);
  EXPECT_EQ(ctx->rpc_msg, nullptr);
  EXPECT_EQ(ctx->current_rpc_size, 0u);
}

TEST_F(RpcServiceTest, RefusesWithCodeAndTextAndTouchesNothing) {
  enum { kCounted = 0, kBenign = 1 };
  const std::string kept = make_file(1, "kept", "kept");
  const std::string active0 = make_file(0, "f", "f");
  const std::string active3 = make_file(3, "f", "f");
  make_file(1, "dir/f", "f");
  mkdir("/run/outside", 0755);
  write_file("/run/outside/f", "outside");
  ASSERT_EQ(symlink("/run/outside", tree_path(1, "link").c_str()), 0);
  const std::string digest = tree_path(1, ".$SyncDigest$f");
  const std::string digest_dir = tree_path(1, "a.$SyncDigest$b/f");
  const std::string prefix = "': Paths cannot contain digest prefix";
  const std::string shared = "Attempt to update shared replicated area while not active '";
  const std::string dotted = tree_path(1, "../replicated_by_this_em/kept");
  const std::string through = tree_path(1, "link/f");
  const std::string unlistable = tree_path(1, std::string(243, 'n'));
  const std::string del = "Could not delete file (";
  const std::string update = "Could not update file (";
  const std::string no_file = "No such file or directory): ";
  const std::string not_permitted = "Operation not permitted): ";
  const std::string loop = "Too many levels of symbolic links): ";
  const struct {
    std::string source, destination;
    bool benign;
    std::string reason;
  } rows[] = {
      {kept, digest, kBenign, "Could not update file '" + digest + prefix},
      {"", digest_dir, kBenign, "Could not update file '" + digest_dir + prefix},
      {kept, active0, kBenign, shared + active0 + "'"},
      {"", active3, kBenign, shared + active3 + "'"},
      {"", tree_path(1, "none"), kBenign, del + no_file + tree_path(1, "none")},
      {"", tree_path(1, "dir"), kCounted, del + "Is a directory): " + tree_path(1, "dir")},
      {tree_path(1, "none"), kept, kCounted, update + no_file + kept},
      {kept, tree_path(1, "none/f"), kCounted, update + no_file + tree_path(1, "none/f")},
      {"", "/run/outside/f", kCounted, del + not_permitted + "/run/outside/f"},
      {kept, "/run/outside/f", kCounted, update + not_permitted + "/run/outside/f"},
      {kept, "relative", kCounted, update + not_permitted + "relative"},
      {kept, root_paths[1], kCounted, update + not_permitted + root_paths[1]},
      {"", dotted, kCounted, del + not_permitted + dotted},
      {"", through, kCounted, del + loop + through},
      {kept, through, kCounted, update + loop + through},
      {kept, unlistable, kCounted, update + "Invalid argument): " + unlistable},
  };
  Lines errors;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    const RpcResult result = serve(request(row.source, row.destination));
    EXPECT_EQ(+ctx->rpc_stage, RPC_COMPLETE);
    EXPECT_EQ(result.reason, row.reason.substr(0, 115));
    EXPECT_EQ(result.success + result.local_ok + result.remote_ok, 0);
    EXPECT_EQ(result.benign, row.benign);
    errors.push_back("Sync Error: " + row.reason.substr(0, 115));
    errors.push_back(row.reason.substr(0, 115));
  }
  EXPECT_EQ(logged(3), errors);
  EXPECT_EQ(sent_messages(), Lines());
  EXPECT_EQ(ctx->cur_state, ST_UNLOCKED);
  EXPECT_EQ(read_file(kept) + read_file(active0) + read_file(active3), "keptff");
  EXPECT_EQ(read_file("/run/outside/f"), "outside");
  EXPECT_TRUE(exists(tree_path(1, "dir/f")));
  EXPECT_EQ(stats.n_atomic_updates_from_self, 2u) << "the renames that were tried";
}

TEST_F(RpcServiceTest, AFailedRenameStillRemovesTheDigestFile) {
  const std::string target = make_file(1, "target", "old");
  const std::string source = make_file(1, "source", "new");
  const std::string digest = make_file(1, ".$SyncDigest$target", "stale");
  EXPECT_EQ(serve(request(tree_path(1, "none"), target)).success, 0);
  EXPECT_FALSE(exists(digest));
  EXPECT_EQ(stats.n_atomic_updates_from_self, 1u);

  make_file(1, ".$SyncDigest$target", "stale");
  strcpy(g_diag_params.fail_rename_path, target.c_str());
  EXPECT_EQ(serve(request(source, target)).reason,
            "Could not update file (Numerical argument out of domain): " + target);
  EXPECT_FALSE(exists(digest));
  EXPECT_EQ(stats.n_atomic_updates_from_self, 1u) << "not attempted";
  EXPECT_EQ(read_file(target), "old");
  EXPECT_EQ(read_file(source), "new");
}

TEST_F(RpcServiceTest, TheActiveEmWritesTheSharedTreesWithItsRights) {
  for (const bool active : {true, false}) {
    set_active(active);
    ctx->cur_state = ST_UNLOCKED;
    const std::string path = make_file(active ? 3 : 1, "f", "x");
    serve(request("", path));
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(ctx->cur_exchange_em_is_active, active);
    EXPECT_EQ(ctx->cur_state, ST_LOCKREQ);
    EXPECT_EQ(+ctx->rpc_stage, RPC_PENDING);
  }
}

TEST_F(RpcServiceTest, ShowsABadMessagePrintable) {
  const std::string many(94, 'a');
  const struct {
    std::string message, shown;
  } rows[] = {{"", "size=0 []"},
              {"/one path", "size=9 [/one path]"},
              {std::string("/a\0/b", 5), "size=5 [/a\\x00/b]"},
              {" ~\x1F\x7F\xFF\n", "size=6 [ ~\\x1f\\x7f\\xff\\x0a]"},
              {many + many, "size=188 [" + many + "a]"},
              {many + "\x01z", "size=96 [" + many + "\\x01]"},
              {many + "b\x01", "size=96 [" + many + "b]"}};
  for (const auto& row : rows) {
    const RpcResult result = serve(row.message);
    EXPECT_STREQ(result.reason, "Received unparseable RPC message");
    EXPECT_EQ(result.benign, 0);
    EXPECT_EQ(result.local_ok, 0);
    EXPECT_TRUE(has_logged("Bad RPC message data: " + row.shown)) << row.shown;
  }
}

TEST_F(RpcServiceTest, ARequestWaitsItsTurnAndIsPublishedWithAPresetResult) {
  ctx->rpc_stage = RPC_LOCAL_BUSY;
  const std::string message = request("", "");
  RpcResult result;
  std::thread caller([&] { result = call(message); });
  wait_until([&] { return ctx->waiting_rpc_count == 1; });
  EXPECT_EQ(read_rpc_stage(ctx), RPC_LOCAL_BUSY) << "the daemon's own exchange goes first";
  end_exchange_full(ctx, 0, nullptr);
  wait_until([&] { return read_rpc_stage(ctx) == RPC_REQUESTING; });
  eventfd_t value = 0;
  EXPECT_EQ(eventfd_read(ctx->rpc_fd, &value), 0);
  EXPECT_EQ(value, 1u);
  pthread_mutex_lock(&ctx->rpc_mutex);
  EXPECT_EQ(ctx->rpc_msg, reinterpret_cast<const uint8_t*>(message.data())) << "no copy";
  EXPECT_EQ(ctx->current_rpc_size, 2u);
  EXPECT_STREQ(ctx->rpc_result.reason, "Local update dispatch never completed");
  EXPECT_EQ(ctx->rpc_result.local_ok, 0);
  pthread_mutex_unlock(&ctx->rpc_mutex);
  end_exchange_error(ctx, "over");
  caller.join();
  EXPECT_STREQ(result.reason, "over");
  EXPECT_TRUE(
      has_logged("RPC update <complete>: path=, (local_ok=0 remote_ok=0 peer_present=Y) over"));
}

TEST_F(RpcServiceTest, HoldsAHundredAndOneCallsAndRefusesTheNext) {
  std::list<RpcResult> results;
  std::vector<std::thread> callers;
  for (int i = 0; i < 101; ++i)
    callers.emplace_back([result = &results.emplace_back()] { *result = call(request("", "")); });
  wait_until([&] { return ctx->waiting_rpc_count == 101; });
  const RpcResult refused = call(request("", ""));
  EXPECT_STREQ(refused.reason, "Too many RPC calls are already waiting");
  EXPECT_EQ(refused.success + refused.local_ok + refused.remote_ok, 0);
  EXPECT_EQ(logged(3), Lines{"Too many RPC calls are pending."});
  EXPECT_EQ(+ctx->waiting_rpc_count, 101);
  with_sync_thread([&] {
    for (std::thread& caller : callers)
      caller.join();
  });
  for (const RpcResult& result : results)
    EXPECT_EQ(result.success, 1) << result.reason;
  EXPECT_EQ(stats.n_syncs_from_self, 101u);
  EXPECT_EQ(+ctx->waiting_rpc_count, 0);
}

TEST_F(RpcServiceTest, AFailedWakeUpAnswersAtOnce) {
  close(ctx->rpc_fd);
  ctx->rpc_fd = -1;
  for (int i = 0; i < 2; ++i) {
    const RpcResult result = call(request("", tree_path(1, "f")));
    EXPECT_STREQ(result.reason, "Write to eventfd failed: Bad file descriptor");
    EXPECT_EQ(result.success + result.local_ok, 0);
    EXPECT_EQ(+ctx->rpc_stage, RPC_IDLE);
    EXPECT_EQ(ctx->rpc_msg, nullptr);
    EXPECT_EQ(+ctx->waiting_rpc_count, 0);
  }
  EXPECT_EQ(logged(3), Lines(2, "Write to eventfd failed: Bad file descriptor"));
}

// The peer left while a request waited for the end of the peer's exchange: that end is no answer to
// the request, which was not even applied yet.
TEST_F(RpcServiceTest, TheEndOfAnotherExchangeDoesNotAnswerARequest) {
  const std::string source = make_file(1, "source", "new");
  const std::string message = request(source, tree_path(1, "target"));
  ctx->cur_state = ST_PEERLOCK;
  ctx->rpc_stage = RPC_REQUESTING;
  ctx->rpc_deferred = 1;
  ctx->rpc_msg = reinterpret_cast<const uint8_t*>(message.data());
  ctx->current_rpc_size = static_cast<uint32_t>(message.size());
  end_exchange_full(ctx, 0, nullptr);
  ASSERT_EQ(+ctx->rpc_stage, RPC_REQUESTING);
  deliver_own(SentMessage(g_cpg.sent.at(0)));
  EXPECT_EQ(ctx->rpc_deferred, 0);
  EXPECT_EQ(+ctx->rpc_stage, RPC_PENDING);
  EXPECT_EQ(read_file(tree_path(1, "target")), "new");
}

// A wake-up can outlive its request: the caller's bytes are no longer the daemon's to read.
TEST_F(RpcServiceTest, AnAnsweredRequestIsNotServed) {
  for (const uint32_t stage : {RPC_IDLE, RPC_COMPLETE, RPC_PENDING}) {
    ctx->rpc_stage = stage;
    ctx->rpc_msg = reinterpret_cast<const uint8_t*>(1);
    ctx->current_rpc_size = 100;
    on_sync_rpc_update(ctx);
    EXPECT_EQ(+ctx->rpc_stage, stage);
  }
  EXPECT_EQ(logged(3), Lines());
  EXPECT_EQ(sent_messages(), Lines());
}

TEST_F(RpcServiceTest, TheSyncCommandWaitsForItsExchange) {
  uint32_t status = 99;
  std::thread caller([&] {
    status = on_rpc_notification(1, reinterpret_cast<const uint8_t*>("sync=now"), 8, nullptr);
  });
  wait_until([&] { return read_rpc_stage(ctx) == RPC_REQUESTING; });
  pthread_mutex_lock(&ctx->rpc_mutex);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(ctx->rpc_msg), ctx->current_rpc_size),
            std::string(2, '\0'));
  pthread_mutex_unlock(&ctx->rpc_mutex);
  EXPECT_EQ(logged(4), Lines{"Received sync diag command. Running extra sync operation now."});
  EXPECT_EQ(+ctx->waiting_rpc_count, 1);
  end_exchange_error(ctx, "its result is dropped");
  caller.join();
  EXPECT_EQ(status, 0u);
}
