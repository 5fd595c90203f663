// What is synced and when, and what is reported if that fails.

#include "redundancy_health/catalog/unsynced.h"
#include "redundancy_health/exchange/reconcile.h"
#include "redundancy_health/exchange/state_machine.h"
#include "tests/unit/daemon_support.h"

namespace {

Lines g_synced;  // "name: content of the watched file at that time"
std::string g_watched;
size_t g_failing = SIZE_MAX;  // index of the sync that fails

int record_sync(int fd) {
  const std::string name = fs::read_symlink("/proc/self/fd/" + std::to_string(fd)).filename();
  const fs::path watched = g_watched;
  const fs::path digests = watched.parent_path() / (".$SyncDigest$" + watched.filename().string());
  g_synced.push_back(name.substr(0, 11) + ": " + read_file(g_watched));
  // If the daemon were killed between two steps, no digests of the replaced file must remain.
  if (name.starts_with("TempUpdate_") && exists(digests)) g_synced.back() += " with digests";
  g_context.state_time -= 50;  // simulates a slow sync
  if (g_synced.size() - 1 != g_failing) return 0;
  errno = EIO;
  return -1;
}

}  // namespace

// Replace the C library's functions, which have no effect on tmpfs.
extern "C" {
int fsync(int fd) {
  return record_sync(fd);
}
int fdatasync(int fd) {
  return record_sync(fd);
}
int syncfs(int fd) noexcept {
  return record_sync(fd);
}
}

using DurabilityTest = DaemonTest;

TEST_F(DurabilityTest, EveryChangeReachesTheDiskInOrderOrIsAFailure) {
  const std::string nul(1, '\0'), own = root_paths[1], f = tree_path(0, "d/f");
  const auto publish_change = [&](const std::string& source, const std::string& destination) {
    request(source, destination);
    EXPECT_GE(ctx->state_time, get_uptime() - 5) << "its syncs time nothing out";
  };
  const std::string chunk = update(PUSH_REQ, 0, "d/f", 0, 3, 4, "new");
  const struct {
    std::function<void()> change;
    std::string watched;
    Lines synced;
    size_t standing = SIZE_MAX;  // from this sync on, a failure leaves a request applied here
  } rows[] = {
      {[&] { publish_change(own + "TempUpdate_1", own + "d/f"); },
       own + "d/f",
       {"TempUpdate_: old", "d: made", "replicated_: made"},
       1},
      {[&] { publish_change(own + "d", own + "e"); }, own + "e/f", {"d: ", "replicated_: old"}, 1},
      // A source that cannot be renamed is not synced first. /mnt is another file system.
      {[&] { publish_change("/run/d/f", own + "d/f"); }, own + "d/f", {}},
      {[&] { publish_change("", own + "d/f"); }, own + "d/f", {"d: "}, 0},
      {[&] { receive(push(0, "n/f", "new")); },
       tree_path(0, "n/f"),
       {"replicated_: ", "TempUpdate_: ", "n: new"}},
      {[&] { receive(chunk); }, f, {"d: old", "f: new" + nul}},
      {[&] { unlink(f.c_str()), receive(chunk); }, f, {"d: ", "f: new" + nul, "d: new" + nul}},
      {[&] { receive(update(PUSH_DEL_REQ, 0, "d/f", 0, 3, 3)); }, f, {"d: "}},
      {[&] { receive(f + nul + tree_path(0, "g") + nul, MSG_LISTING_REQ); },
       tree_path(0, "g"),
       {"replicated_: old", "d: old"}},
      {[&] { compare_synced_files(ctx, nullptr, 0); }, tree_path(2, "d/2"), {"d: ", "e: "}},
  };
  for (const auto& row : rows) {
    for (g_failing = 0; g_failing <= row.synced.size(); ++g_failing) {
      SCOPED_TRACE(testing::PrintToString(row.synced) + " " + std::to_string(g_failing));
      for (const char* root : root_paths)
        fs::remove_all(root);
      for (const char* path : {"1/TempUpdate_1", "3/f", "2/d/1", "2/d/2", "2/e/1"})
        make_file(static_cast<uint32_t>(*path - '0'), path + 2, "made");
      for (const uint32_t root : {0u, 1u})
        make_file(root, "d/f", "old");
      for (const uint32_t root : {0u, 1u})
        make_file(root, "d/.$SyncDigest$f", "");
      mkdir("/run/d", 0755);
      write_file("/run/d/f", "elsewhere");
      ctx->cur_state = ST_UNLOCKED;
      reset_cpg_result(ctx);
      ctx->rpc_result = ctx->cpg_result;
      g_watched = row.watched;
      g_synced.clear();
      forget_unsynced();
      row.change();
      const bool fails = g_failing < row.synced.size();
      const RpcResult& result = row.standing == SIZE_MAX ? ctx->cpg_result : ctx->rpc_result;
      EXPECT_EQ(strstr(result.reason, "Input/output error") != nullptr, fails) << result.reason;
      EXPECT_EQ(result.local_ok, row.standing == SIZE_MAX || g_failing >= row.standing);
      EXPECT_TRUE(fails || g_synced == row.synced) << testing::PrintToString(g_synced);
    }
  }
  // Digests are written only for bytes that are on the disk. The old digests are removed before
  // that.
  make_file(3, "large", std::string(70000, 'x'));
  g_watched = tree_path(3, ".$SyncDigest$large");
  for (g_failing = 0; g_failing < 3; ++g_failing) {
    write_file(g_watched, "Digest-V1 1 1\n");
    g_synced.clear();
    scan_lines(ctx);
    EXPECT_EQ(g_synced,
              g_failing == 0 ? Lines{"replicated_: "} : (Lines{"replicated_: ", "large: "}));
    EXPECT_EQ(exists(g_watched), g_failing == 2);
  }
  g_failing = SIZE_MAX;
}

// The kernel reports a failed write-back only once and then treats the pages as clean.
TEST_F(DurabilityTest, WhatCouldNotBeSyncedIsNoSuccessLater) {
  const std::string f = tree_path(0, "f"), zeros = "A " + std::string(40, '0');
  const std::string content = pattern(70000);
  const auto receive = [&](const std::string& payload, size_t failing = SIZE_MAX) {
    g_synced.clear();
    g_failing = failing;
    DaemonTest::receive(payload);
    g_failing = SIZE_MAX;
    g_synced.clear();
    EXPECT_EQ(ctx->cpg_result.success, failing == SIZE_MAX) << ctx->cpg_result.reason;
    reset_cpg_result(ctx);
  };
  // The number of listing lines for chunks that must be sent again.
  const auto wanted = [&] {
    const Lines lines = scan_lines(ctx, false);
    EXPECT_EQ(lines.size(), 2u);
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.starts_with(zeros); });
  };
  const std::string first = update(PUSH_REQ, 0, "f", 0, 65536, 70000, content.substr(0, 65536));
  const std::string second = update(PUSH_REQ, 0, "f", 65536, 70000, 70000, content.substr(65536));
  receive(first);
  receive(second, 0);
  EXPECT_EQ(wanted(), 2);
  EXPECT_FALSE(exists(tree_path(0, ".$SyncDigest$f"))) << "nothing vouches for it";
  set_active(true);
  EXPECT_EQ(wanted(), 0) << "the owner lists what it has";
  set_active(false);
  receive(second);
  EXPECT_EQ(wanted(), 1);
  receive(first, 0);
  EXPECT_EQ(wanted(), 2);
  receive(first);
  receive(second);
  EXPECT_EQ(wanted(), 0);

  receive(second, 0);
  receive(update(PUSH_DEL_REQ, 0, "f", 0, 3, 3), 0);
  g_failing = 0;
  EXPECT_EQ(scan_lines(ctx), Lines());
  const std::string directory = fs::canonical(root_paths[0]);
  EXPECT_EQ(ctx->cpg_result.reason, "could not sync directory (Input/output error): " + directory);
  scan_lines(ctx);
  EXPECT_EQ(g_synced.size(), 2u) << "until it succeeds";
  make_file(0, "f", content);
  EXPECT_EQ(wanted(), 0) << "the deletion ended it";

  // The platform is told of a replaced file even if the file may not survive a power failure.
  for (size_t failing = 0; failing < 2; ++failing) {
    receive(update(PUSH_REQ, 0, "shadow", 0, 1, 1, "x"), failing);
    EXPECT_EQ(logged(6).size(), failing == 0 ? 0u : 2u);
  }
}
