#include "redundancy_health/exchange/reconcile.h"

#include <fcntl.h>
#include <string.h>
#include <sys/mount.h>

#include <filesystem>

#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/statistics.h"
#include "tests/unit/daemon_support.h"

namespace {

// SHA-1 of "abc", of "a" and of nothing.
#define ABC "a9993e364706816aba3e25717850c26c9cd0d89d"
#define A "86f7e437faa5a7fce15d1ddcb9eaeaea377667b8"
#define EMPTY "da39a3ee5e6b4b0d3255bfef95601890afd80709"

using Lines = std::vector<std::string>;

class ReconcileTest : public DaemonTest {
 protected:
  ReconcileTest() {
    g_flight_recorder.paused = 1;
    ctx->cur_state = ST_LISTREQ;
  }

  // Compares the trees with a listing; what is to be sent, as "PUSH_REQ <line>".
  Lines compare(const Lines& listing) {
    std::string payload;
    for (const std::string& line : listing)
      payload += line + '\0';
    return compare_bytes(payload);
  }

  Lines compare_bytes(const std::string& payload) {
    compare_synced_files(ctx, reinterpret_cast<const uint8_t*>(payload.data()),
                         static_cast<uint32_t>(payload.size()));
    Lines queue;
    for (const FileEntry* entry = ctx->update_queue; entry != nullptr; entry = entry->next)
      queue.push_back(std::string(update_type_name(entry->update_type)) + " " + entry->xmit_line);
    return queue;
  }

  // The peer, in its exchange 9, asks for the listing.
  void ask_for_listing(const std::string& payload = "") {
    ctx->cur_state = ST_PEERLOCK;
    ctx->peer_exchange_id = 9;
    deliver_from_peer(message_bytes(MSG_LISTING_REQ, 9, 0, payload));
  }
};

}  // namespace

TEST_F(ReconcileTest, EachTreeFlowsInItsDirection) {
  const std::string abc = " " ABC " 00000000 00000003 G f";
  const std::string other = " " A " 00000000 00000003 G f";
  const std::string whole_chunk = " " A " 00000000 00010000 G f";
  const struct {
    const char* name;
    uint32_t root;
    const char* content;  // of "f" here, null: not here
    mode_t mode;
    Lines peer;
    Lines queue;
    uint32_t matched;
  } rows[] = {
      {"0 same", 0, "abc", 0644, {"A" + abc}, {}, 1},
      {"1 same", 1, "abc", 0644, {"Q" + abc}, {}, 1},
      {"2 same", 2, "abc", 0644, {"P" + abc}, {}, 1},
      {"3 same", 3, "abc", 0644, {"V" + abc}, {}, 1},
      {"0 differs", 0, "abc", 0644, {"A" + other}, {"PUSH_REQ A" + abc}, 0},
      {"1 differs", 1, "abc", 0644, {"Q" + other}, {"PUSH_REQ Q" + abc}, 0},
      {"2 differs", 2, "abc", 0644, {"P" + other}, {"PULL_REQ P" + other}, 0},
      {"3 differs", 3, "abc", 0644, {"V" + other}, {"PUSH_REQ V" + abc}, 0},
      {"0 only here", 0, "abc", 0644, {}, {"PUSH_REQ A" + abc}, 0},
      {"1 only here", 1, "abc", 0644, {}, {"PUSH_REQ Q" + abc}, 0},
      {"2 only here", 2, "abc", 0644, {}, {}, 0},
      {"3 only here", 3, "abc", 0644, {}, {"PUSH_REQ V" + abc}, 0},
      {"0 only there",
       0,
       nullptr,
       0,
       {"A" + abc, "A" + whole_chunk},
       {"PUSH_DEL_REQ A" + abc, "PUSH_DEL_REQ A" + whole_chunk},
       0},
      {"1 only there", 1, nullptr, 0, {"Q" + abc}, {"PUSH_DEL_REQ Q" + abc}, 0},
      {"2 only there",
       2,
       nullptr,
       0,
       {"P" + abc, "P" + whole_chunk},
       {"PULL_REQ P" + abc, "PULL_REQ P" + whole_chunk},
       0},
      {"3 only there", 3, nullptr, 0, {"V" + abc}, {"PUSH_DEL_REQ V" + abc}, 0},
      {"0 other mode",
       0,
       "abc",
       0600,
       {"A" + abc},
       {"PUSH_REQ A " ABC " 00000000 00000003 P f"},
       0},
      {"2 other mode", 2, "abc", 0600, {"P" + abc}, {"PULL_REQ P" + abc}, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    for (uint32_t root = 0; root < kRootCount; ++root)
      unlink(tree_path(root, "f").c_str());
    if (row.content != nullptr) make_file(row.root, "f", row.content, row.mode);
    EXPECT_EQ(compare(row.peer), row.queue) << "what an earlier comparison left is gone";
    EXPECT_EQ(exists(tree_path(2, "f")),
              row.root == 2 && row.content != nullptr && !row.peer.empty());
    EXPECT_EQ(logged(7).back(), "SYNC Local entries: " + std::to_string(row.content != nullptr) +
                                    "; Peer entries: " + std::to_string(row.peer.size()) +
                                    "; Matched chunks: " + std::to_string(row.matched));
  }
  EXPECT_EQ(ctx->cpg_result.success, 1);
}

TEST_F(ReconcileTest, QueuesPushesInScanOrderAndThenThePeersLines) {
  make_file(1, "own", "abc");
  make_file(0, "active", "abc");
  make_file(3, "volatile", "abc");
  make_file(2, "sub/lost", "a", 0640);
  const std::string pull = "P " A " 00000000 00000001 G pull me";
  const std::string gone_v = "V " ABC " 00000000 00000003 G gone";
  const std::string gone_a = "A " ABC " 00000000 00000003 P gone";
  EXPECT_EQ(compare({pull, gone_v, gone_a}),
            (Lines{"PUSH_REQ A " ABC " 00000000 00000003 G active",
                   "PUSH_REQ V " ABC " 00000000 00000003 G volatile",
                   "PUSH_REQ Q " ABC " 00000000 00000003 G own", "PULL_REQ " + pull,
                   "PUSH_DEL_REQ " + gone_v, "PUSH_DEL_REQ " + gone_a}));
  EXPECT_EQ(
      logged(7),
      (Lines{"@@ Pull del:  P " A " 00000000 00000001 P sub/lost",
             "SYNC Update chunk PUSH_DEL_REQ  " + gone_a,
             "SYNC Update chunk PUSH_DEL_REQ  " + gone_v, "SYNC Update chunk PULL_REQ      " + pull,
             "SYNC Update chunk PUSH_REQ      Q " ABC " 00000000 00000003 G own",
             "SYNC Update chunk PUSH_REQ      V " ABC " 00000000 00000003 G volatile",
             "SYNC Update chunk PUSH_REQ      A " ABC " 00000000 00000003 G active",
             "SYNC Local entries: 4; Peer entries: 3; Matched chunks: 0"}));
  for (const FileEntry* entry = ctx->update_queue; entry != nullptr; entry = entry->next) {
    if (entry->update_type != PULL_REQ) continue;
    EXPECT_EQ(entry->path, tree_path(2, "pull me"));
    EXPECT_EQ(entry->is_local, 0);
  }
}

TEST_F(ReconcileTest, NothingOnBothSidesSaysNothing) {
  EXPECT_EQ(compare({}), Lines());
  EXPECT_EQ(logged(-1), Lines());
}

TEST_F(ReconcileTest, AnInvalidLineIsDroppedAndNothingIsDeletedHere) {
  const std::string valid = "A " ABC " 00000000 00000003 G valid";
  const std::string sha = " " ABC " ";
  const std::string chunk = sha + "00000000 00000003 G";
  // clang-format off
  const std::string invalid[] = {
      "", "A", "no line at all", "B" + chunk + " f", "W" + chunk + " f", "@" + chunk + " f",
      "a" + chunk + " f", "A" + sha + "00000002 00000001 G f", "A" + sha + "00000000 00010001 G f",
      "A" + sha + "00000000 ffffffff G f", "A" + sha + "fffffff0 00000005 G f",
      "A" + sha + "x 00000003 G f", "A" + chunk, "A" + chunk + " ", "A" + chunk + " /etc/passwd",
      "A" + chunk + " ..", "A" + chunk + " ../f", "A" + chunk + " a/../f", "A" + chunk + " a/.."};
  // clang-format on
  make_file(2, "lost", "abc");
  for (const std::string& line : invalid) {
    SCOPED_TRACE(line);
    for (const Lines& listing : {Lines{line, valid}, Lines{valid, line}}) {
      reset_cpg_result(ctx);
      EXPECT_EQ(compare(listing), Lines{"PUSH_DEL_REQ " + valid});
      EXPECT_STREQ(ctx->cpg_result.reason, "Malformed enty in CPG message");
      EXPECT_EQ(ctx->cpg_result.canceled, 1);
      EXPECT_EQ(ctx->cpg_result.local_ok, 1);
    }
  }
  EXPECT_EQ(logged(3), Lines());
  EXPECT_TRUE(exists(tree_path(2, "lost"))) << "it may have been in a dropped line";
  EXPECT_EQ(ctx->cur_state, ST_LISTREQ);

  reset_cpg_result(ctx);
  EXPECT_EQ(compare({"A " ABC " 00000000 00000003 G a..b/..c/...", valid}).size(), 2u);
  EXPECT_EQ(ctx->cpg_result.success, 1) << "dots in a name are fine";
  EXPECT_FALSE(exists(tree_path(2, "lost")));
}

TEST_F(ReconcileTest, AnUnterminatedListingEndsTheExchange) {
  make_file(2, "lost", "abc");
  make_file(0, "f", "abc");
  EXPECT_EQ(compare_bytes(std::string("A " ABC " 00000000 00000003 G f\0x", 66)), Lines());
  EXPECT_EQ(logged(3), Lines{"Sync Error: Received malformed CPG message"});
  EXPECT_EQ(ctx->cur_state, ST_DONE);
  EXPECT_TRUE(exists(tree_path(2, "lost")));
}

TEST_F(ReconcileTest, AFailedDeletionIsRecordedAndTheComparisonGoesOn) {
  const std::string busy = make_file(2, "busy", "abc");  // a mount point cannot be unlinked
  make_file(2, "lost", "abc");
  make_file(0, "f", "abc");
  ASSERT_EQ(mount(busy.c_str(), busy.c_str(), nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(compare({}), Lines{"PUSH_REQ A " ABC " 00000000 00000003 G f"});
  umount(busy.c_str());
  const std::string reason = "Could not delete file (Device or resource busy): " + busy;
  EXPECT_EQ(logged(3), Lines{reason});
  EXPECT_EQ(ctx->cpg_result.reason, reason);
  EXPECT_EQ(ctx->cpg_result.canceled, 1);
  EXPECT_EQ(ctx->cpg_result.local_ok, 0) << "code 18";
  EXPECT_FALSE(exists(tree_path(2, "lost")));
  EXPECT_EQ(logged(7).back(), "SYNC Local entries: 3; Peer entries: 0; Matched chunks: 0");
}

TEST_F(ReconcileTest, AFailedScanStopsEitherSide) {
  make_file(2, "lost", "abc");
  std::filesystem::remove_all(root_paths[3]);
  const std::string reason =
      std::string("could not open directory (No such file or directory): ") + root_paths[3];
  ctx->cur_exchange_id = 7;
  deliver_from_peer(message_bytes(MSG_LISTING_ACK, 7, 0));
  EXPECT_EQ(ctx->cur_state, ST_LISTREQ) << "until the timeout";
  EXPECT_EQ(ctx->cpg_result.reason, reason);
  EXPECT_TRUE(exists(tree_path(2, "lost")));
  reset_cpg_result(ctx);
  ask_for_listing();
  EXPECT_EQ(ctx->cur_state, ST_PEERLOCK);
  EXPECT_EQ(ctx->cpg_result.reason, reason);
  EXPECT_EQ(sent_messages(), Lines());
  EXPECT_EQ(stats.n_syncs_from_peer, 1u);
  Lines functions;
  for (const LogLine& line : log.lines())
    if (line.text == "SKIP_IF_CANCELED triggered") functions.push_back(line.function);
  EXPECT_EQ(functions,
            (Lines{"compare_synced_files", "on_sync_state_change", "gather_file_listing"}));
}

TEST_F(ReconcileTest, TheListingIsItsBytes) {
  ask_for_listing();
  EXPECT_EQ(g_cpg.sent.at(0).payload, "");
  make_file(0, "dir/a b", "abc");
  make_file(1, "own", "a", 0600);
  make_file(2, "other", "");
  make_file(3, "v", "abc");
  ask_for_listing();
  const char listing[] = "Q " EMPTY
                         " 00000000 00000000 G other\0"
                         "P " A
                         " 00000000 00000001 P own\0"
                         "V " ABC
                         " 00000000 00000003 G v\0"
                         "A " ABC " 00000000 00000003 G dir/a b";
  EXPECT_EQ(g_cpg.sent.at(1).payload, std::string(listing, sizeof(listing)));
  EXPECT_EQ(g_cpg.sent[1].header.flags, FLAG_PEER_EXCHANGE);
  EXPECT_EQ(g_cpg.sent[1].header.result.success, 1);
  EXPECT_EQ(sent_messages(), Lines(2, "MSG_LISTING_ACK 9.0"));
  EXPECT_EQ(stats.n_syncs_from_peer, 2u);
}

TEST_F(ReconcileTest, ARequestsRenameIsRepeatedOnlyInsideTheRoots) {
  namespace fs = std::filesystem;
  fs::create_directories("/run/outside");
  const std::string root = root_paths[0];
  const std::string src = root + "src";
  const std::string dst = root + "dst";
  const std::string nul(1, '\0');
  const std::string out = "/run/outside/";
  // clang-format off
  const std::string renamed[] = {src + nul + dst + nul, src + nul + dst + nul + "more"};
  const std::string ignored[] = {
      "", nul, nul + nul, src, src + nul, src + nul + nul, src + nul + dst, nul + dst + nul,
      src + nul + root_paths[3] + "dst" + nul,  // another file system
      root + "TempUpdate_1" + nul + dst + nul, root + "TempUpdate_1/src" + nul + dst + nul,
      src + nul + out + "dst" + nul, src + nul + root + "../dst" + nul,
      src + nul + root + "link/dst" + nul, src + nul + "dst" + nul, out + "kept" + nul + dst + nul,
      root + "../kept" + nul + dst + nul, root + "link/kept" + nul + dst + nul,
      root + "dir/../../kept" + nul + dst + nul,
      // What no scan could list would fail every later exchange.
      src + nul + root + ".$SyncDigest$dst" + nul, src + nul + root + " \t" + nul,
      src + nul + root + "/ /" + nul, src + nul + root + std::string(243, 'n') + nul,
      // A root itself is no file of the trees.
      root_paths[2] + nul + root_paths[1] + "dst" + nul,
      root_paths[2] + std::string("/") + nul + root_paths[1] + "dst" + nul,
      root + "empty dir" + nul + root_paths[2] + nul};
  // clang-format on
  const auto try_rename = [&](const std::string& payload, bool expect_renamed) {
    SCOPED_TRACE(testing::PrintToString(payload));
    fs::remove_all(root);
    make_file(0, "src", "content");
    make_file(0, "TempUpdate_1/src", "content");
    fs::create_directories(root + "empty dir");
    fs::create_directory_symlink("/run/outside", root + "link");
    write_file("/run/outside/kept", "kept");
    write_file("/mnt/part.persistent/kept", "kept");
    for (const char* path : root_paths)
      fs::create_directories(path);
    ask_for_listing(payload);
    EXPECT_EQ(exists(src), !expect_renamed);
    EXPECT_EQ(read_file(dst), expect_renamed ? "content" : "");
    EXPECT_TRUE(exists(root + "TempUpdate_1/src"));
    EXPECT_TRUE(exists(root + "empty dir"));
    EXPECT_EQ(names_in("/run/outside"), std::set<std::string>{"kept"});
    EXPECT_TRUE(exists("/mnt/part.persistent/kept"));
    EXPECT_FALSE(exists("/mnt/part.persistent/dst"));
    for (const char* path : root_paths)
      EXPECT_TRUE(exists(path)) << path;
    EXPECT_EQ(logged(3), Lines()) << "its outcome does not matter";
  };
  for (const std::string& payload : renamed)
    try_rename(payload, true);
  for (const std::string& payload : ignored)
    try_rename(payload, false);
}
