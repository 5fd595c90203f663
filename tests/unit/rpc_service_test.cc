#include "redundancy_health/rpc/rpc_service.h"

#include <sys/eventfd.h>

#include <thread>

#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/transfer/exchange_notes.h"
#include "redundancy_health/transport/exchange_outcome.h"
#include "tests/unit/daemon_support.h"

namespace {

RpcResult call(const std::string& message) {
  RpcResult result;
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
    ctx->rpc_fd = eventfd(0, 0);
  }
  ~RpcServiceTest() override {
    close(ctx->rpc_fd);
  }
};

}  // namespace

TEST_F(RpcServiceTest, RefusesWithCodeAndTextAndTouchesNothing) {
  const std::string kept = make_file(1, "kept", "kept");
  const std::string digest = make_file(1, "d/.$SyncDigest$f", ""), own = root_paths[1];
  make_file(1, "d/f", "f");
  mkdir("/run/outside", 0755);
  write_file("/run/outside/f", "outside");
  fs::create_symlink("/run/outside", own + "link");
  strcpy(g_diag_params.fail_rename_path, (own + "injected").c_str());
  const std::string shared = "Attempt to update shared replicated area while not active '%'";
  const std::string del = "Could not delete file (", update = "Could not update file (";
  const std::string no_file = "No such file or directory): %";
  const std::string not_permitted = "Operation not permitted): %";
  const std::string loop = "Too many levels of symbolic links): %";
  const std::string invalid = "Invalid argument): %";
  const struct {
    std::string source, destination;
    bool benign;
    std::string reason;  // "%" is the destination
  } rows[] = {
      {kept, own + "a.$SyncDigest$b/f", true,
       "Could not update file '%': Paths cannot contain digest prefix"},
      {kept, make_file(0, "f", "f"), true, shared},
      {"", make_file(3, "f", "f"), true, shared},
      {"", own + "none", true, del + no_file},
      {"", own + "d", false, del + "Is a directory): %"},
      {own + "none", own + "d/f", false, update + no_file},
      {kept, own + "injected", false, update + "Numerical argument out of domain): %"},
      {"", "/run/outside/f", false, del + not_permitted},
      {kept, "relative", false, update + not_permitted},
      {kept, own, false, update + not_permitted},
      {"", own + "../replicated_by_this_em/kept", false, del + not_permitted},
      {"", own + "link/f", false, del + loop},
      {kept, own + "link/f", false, update + loop},
      {kept, own + std::string(243, 'n'), false, update + invalid},
      {kept, own + "TempUpdate_1/f", false, update + invalid},
      {kept, own + "/ f", false, update + invalid},
      {"", own + "d/TempUpdate_f", false, del + invalid},
      {kept, make_file(2, "f", "copy"), false, update + not_permitted},
      {"", tree_path(2, "f"), false, del + not_permitted},
      // A double slash does not add a level.
      {kept, own + "/1/2/3/4/5/6/7/8/9/a/b/c/d/e/f/g/f", false, update + no_file},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    g_flight_recorder.paused = 0;
    const RpcResult result = request(row.source, row.destination);
    std::string reason = row.reason;
    reason.replace(reason.find('%'), 1, row.destination);
    EXPECT_EQ(result.reason, reason.substr(0, 115));
    EXPECT_EQ(+ctx->rpc_stage, RPC_COMPLETE);
    EXPECT_EQ(result.success + result.local_ok + result.remote_ok, 0);
    EXPECT_EQ(result.benign, row.benign);
    EXPECT_EQ(g_flight_recorder.paused, !row.benign) << "what means nothing dumps nothing";
    EXPECT_TRUE(ctx->cpg_result.success) << "nobody else hears of it";
  }
  EXPECT_EQ(sent_messages(), Lines());
  EXPECT_EQ(read_file(kept) + read_file(tree_path(0, "f")) + read_file(tree_path(3, "f")) +
                read_file(own + "d/f") + read_file("/run/outside/f") + read_file(tree_path(2, "f")),
            "keptfffoutsidecopy");
  EXPECT_FALSE(exists(digest)) << "of the destination of a rename that failed";
  EXPECT_EQ(stats.n_atomic_updates_from_self, 2u) << "the renames that were tried";
  set_active(true);
  fs::create_directory(tree_path(3, ".$SyncDigest$f"));  // vouches for nothing
  request(make_file(3, "new", "new"), tree_path(3, "f"));
  EXPECT_EQ(read_file(tree_path(3, "f")), "new");
  EXPECT_EQ(ctx->cur_exchange_em_is_active, 1);
  EXPECT_EQ(sent_messages(), Lines{"MSG_LOCK_REQ 1.0"});
}

TEST_F(RpcServiceTest, AChangeThatStandsHereIsNeverDenied) {
  // The peer leaves while the change waits for the end of the peer's exchange.
  for (const bool still_active : {true, false}) {
    set_active(true);
    request("", make_file(0, "f", "f"));
    deliver_from_peer(message_bytes(MSG_LOCK_REQ, 9, 0));
    set_active(still_active);
    change_membership(false);
    EXPECT_EQ(ctx->rpc_result.success, still_active) << ctx->rpc_result.reason;
    EXPECT_EQ(ctx->rpc_result.local_ok, 1);
    change_membership(true);
  }
  g_diag_params.statemachine_stuck = 1;
  request(make_file(1, "TempUpdate_1", "f"), tree_path(1, "f"));
  end_exchange_error(ctx, "Operation timed out");
  EXPECT_STREQ(ctx->rpc_result.reason, "Operation timed out");
  EXPECT_EQ(ctx->rpc_result.local_ok, 1);
}

TEST_F(RpcServiceTest, ARequestWaitsItsTurnAndIsPublishedWithAPresetResult) {
  ctx->rpc_stage = RPC_LOCAL_BUSY;
  const std::string message(2, '\0');
  RpcResult result;
  std::thread caller([&] { result = call(message); });
  wait_until([&] { return ctx->waiting_rpc_count == 1; });
  EXPECT_EQ(read_rpc_stage(ctx), RPC_LOCAL_BUSY) << "the daemon's own exchange goes first";
  end_exchange_full(ctx, 0, nullptr);
  wait_until([&] { return read_rpc_stage(ctx) == RPC_REQUESTING; });
  eventfd_t value = 0;
  EXPECT_EQ(eventfd_read(ctx->rpc_fd, &value), 0);
  pthread_mutex_lock(&ctx->rpc_mutex);
  EXPECT_EQ(ctx->current_rpc_size, 2u);
  EXPECT_STREQ(ctx->rpc_result.reason, "Local update dispatch never completed");
  EXPECT_EQ(ctx->rpc_result.local_ok, 0);
  pthread_mutex_unlock(&ctx->rpc_mutex);
  end_exchange_error(ctx, "over");
  caller.join();
  EXPECT_STREQ(result.reason, "over");

  // A wake-up may arrive after its request was answered. The caller's bytes are invalid then.
  ctx->rpc_stage = RPC_PENDING;
  ctx->rpc_msg = reinterpret_cast<const uint8_t*>(1);
  ctx->current_rpc_size = 100;
  on_sync_rpc_update(ctx);
  EXPECT_EQ(+ctx->rpc_stage, RPC_PENDING);
  ctx->rpc_stage = RPC_IDLE;
  const int rpc_fd = std::exchange(ctx->rpc_fd, -1);
  EXPECT_STREQ(call(message).reason, "Write to eventfd failed: Bad file descriptor");
  ctx->rpc_fd = rpc_fd;
  EXPECT_EQ(+ctx->rpc_stage, RPC_IDLE);
  EXPECT_EQ(+ctx->waiting_rpc_count, 0);
  ctx->waiting_rpc_count = 101;
  const RpcResult refused = call(message);
  EXPECT_STREQ(refused.reason, "Too many RPC calls are already waiting");
  EXPECT_EQ(refused.success + refused.local_ok + refused.remote_ok, 0);
}
