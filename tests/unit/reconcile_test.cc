#include "redundancy_health/exchange/reconcile.h"

#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/transfer/outgoing.h"
#include "tests/unit/daemon_support.h"

namespace {

class ReconcileTest : public DaemonTest {
 protected:
  // Compares the trees with a listing. Returns the entries to send, as "PUSH_REQ <line>".
  Lines compare(const Lines& listing, bool terminated = true) {
    std::string payload;
    for (const std::string& line : listing)
      payload += line + '\0';
    reset_cpg_result(ctx);
    ctx->cur_state = ST_LISTREQ;
    compare_synced_files(ctx, reinterpret_cast<const uint8_t*>(payload.data()),
                         static_cast<uint32_t>(payload.size() - !terminated));
    Lines queue;
    for (const FileEntry* entry = ctx->update_queue; entry != nullptr; entry = entry->next)
      queue.push_back(std::string(update_type_name(entry->update_type)) + " " + entry->xmit_line);
    return queue;
  }
};

}  // namespace

TEST_F(ReconcileTest, AnEmptiedTreeDeletesNothingUnlessItIsAllowed) {
  const struct {
    const char* percent = "90";
    uint32_t root = 0;
    bool active = true;
    int lost = 20, kept = 0;  // files that the owner no longer has, and still has
    bool allowed = false, withheld = false;
  } rows[] = {
      {.percent = nullptr},
      {.withheld = true},
      {.root = 3, .lost = 11, .kept = 1, .withheld = true},
      {.root = 3, .lost = 18, .kept = 2},
      {.allowed = true},
      {.lost = 10},
      {.active = false},
      {.root = 1, .active = false, .withheld = true},
      {.root = 2, .active = false, .withheld = true},
      {.root = 2, .active = false, .allowed = true},
      {.percent = "", .root = 2, .active = false},
      {.percent = "0", .root = 1, .active = false, .lost = 11, .kept = 90, .withheld = true},
  };
  const std::string empty = " " SHA_EMPTY " 00000000 00000000 G ";
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    row.percent != nullptr ? setenv("MAX_DELETED_PERCENT", row.percent, 1)
                           : unsetenv("MAX_DELETED_PERCENT");
    ctx->cur_exchange_em_is_active = row.active;
    g_diag_params.allow_deletions = row.allowed;
    const bool from_peer = row.root == 2;
    Lines listing;
    for (int i = 0; i < row.lost + row.kept; ++i) {
      const std::string name = std::to_string(i);
      if (from_peer || i >= row.lost) make_file(row.root, name, "");
      if (!from_peer || i >= row.lost) listing.push_back("AQPV"[row.root] + empty + name);
    }
    // A new file must not make the loss look smaller to the next exchange.
    if (row.withheld && from_peer) listing.push_back("P" + empty + "new");
    if (row.withheld && !from_peer) make_file(row.root, "new", "");
    const Lines queue = compare(listing);
    EXPECT_TRUE(!row.withheld || queue.empty());
    const size_t deleted = from_peer ? static_cast<size_t>(row.lost + row.kept) -
                                           names_in(tree_path(row.root, "")).size()
                                     : queue.size();
    EXPECT_EQ(deleted, row.withheld ? 0u : static_cast<size_t>(row.lost));
    EXPECT_EQ(g_diag_params.allow_deletions, 0) << "once only";
    free_file_list(&ctx->update_queue);
    update_next_chunk(ctx);
    const std::string text = "Exchange would delete " + std::to_string(row.lost) + " of " +
                             std::to_string(row.lost + row.kept) + " files in '" +
                             root_paths[row.root] + "'";
    EXPECT_EQ(ctx->cpg_result.reason, row.withheld ? text : "");
    fs::remove_all(root_paths[row.root]);
    mkdir(root_paths[row.root], 0755);
  }
}

TEST_F(ReconcileTest, AnInvalidLineIsDroppedAndNothingIsDeletedHere) {
  const std::string valid = "A " SHA_ABC " 00000000 00000003 G valid";
  const std::string sha = "A " SHA_ABC " ", chunk = " " SHA_ABC " 00000000 00000003 G";
  make_file(2, "lost", "abc");
  for (const std::string& line :
       {std::string(), "A" + chunk, "A" + chunk + " ", "a" + chunk + " f",
        sha + "00000002 00000001 G f", sha + "00000000 00010001 G f", sha + "x 00000003 G f",
        "A" + chunk + " /etc/passwd", "A" + chunk + " ..", "A" + chunk + " a/../f",
        "A" + chunk + " a//.."}) {
    SCOPED_TRACE(line);
    for (const Lines& listing : {Lines{line, valid}, Lines{valid, line}}) {
      EXPECT_EQ(compare(listing), Lines{"PUSH_DEL_REQ " + valid});
      EXPECT_STREQ(ctx->cpg_result.reason, "Malformed enty in CPG message");
      EXPECT_EQ(ctx->cpg_result.local_ok, 1);
    }
  }
  EXPECT_EQ(compare({valid + "x"}, false), Lines());
  EXPECT_STREQ(ctx->cpg_result.reason, "Received malformed CPG message");
  EXPECT_EQ(ctx->cur_state, ST_DONE);
  EXPECT_TRUE(exists(tree_path(2, "lost"))) << "it may have been in a dropped line";
  EXPECT_EQ(compare({"A " SHA_ABC " 00000000 00000003 G a..b/..c/...", valid}).size(), 2u);
  EXPECT_FALSE(exists(tree_path(2, "lost"))) << "dots in a name are fine";
}

// Paths are in the requester's numbering: its own tree is root 2 here. The requester must not move
// files in this EM's own tree.
TEST_F(ReconcileTest, ARequestsRenameIsRepeatedOnlyOnThisEmsOwnCopies) {
  fs::create_directories("/run/outside");
  const std::string shared = root_paths[0], own = root_paths[1], mine = root_paths[2];
  const std::string src = shared + "src", dst = shared + "dst", nul(1, '\0'), out = "/run/outside/";
  const std::string ends = nul + dst + nul;
  const struct {
    std::string payload;
    std::string from, to;  // of the rename here; empty: no rename
    bool active = false;
  } rows[] = {
      {src + ends, src, dst},
      {src + nul + shared + "/dst" + nul + "more", src, dst},
      {own + "src" + nul + own + "dst" + nul, mine + "src", mine + "dst"},
      {own + "src" + nul + own + "dst" + nul, mine + "src", mine + "dst", true},
      {src + nul + own + "dst" + nul, src, mine + "dst"},
      // Not on the active EM, whose shared trees are not copies, and not in its own tree.
      {src + ends, "", "", true},
      {src + nul + own + "dst" + nul, "", "", true},
      {mine + "src" + ends, "", ""},
      {src + nul + mine + "dst" + nul, "", ""},
      // Not a rename, or a source that must not be moved.
      {nul, "", ""},
      {src + nul + dst, "", ""},
      {shared + "TempUpdate_1/src" + ends, "", ""},
      {out + "kept" + ends, "", ""},
      {shared + "../kept" + ends, "", ""},
      {shared + "link/kept" + ends, "", ""},
      {own + ends, "", ""},
      // Outside, or where no later scan could list it.
      {src + nul + out + "dst" + nul, "", ""},
      {src + nul + shared + "../dst" + nul, "", ""},
      {src + nul + shared + ".$SyncDigest$dst" + nul, "", ""},
      {src + nul + shared + std::string(243, 'n') + nul, "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.payload));
    set_active(row.active);
    std::set<std::string> expected = {shared + "TempUpdate_1/src"};
    for (const std::string& root : {shared, own, mine})
      fs::remove_all(root);
    make_file(0, "TempUpdate_1/src", "content");
    for (const uint32_t root : {0u, 1u, 2u}) {
      make_file(root, ".$SyncDigest$dst", "of what is replaced");
      expected.insert(make_file(root, "src", "content"));
    }
    fs::create_directory_symlink("/run/outside", shared + "link");
    write_file("/run/outside/kept", "kept");
    write_file("/mnt/part.persistent/kept", "kept");
    if (expected.erase(row.from) != 0) expected.insert(row.to);
    receive(row.payload, MSG_LISTING_REQ);
    std::set<std::string> found;
    for (const std::string& root : {shared, own, mine}) {
      for (const auto& entry : fs::recursive_directory_iterator(root))
        if (entry.is_regular_file()) found.insert(entry.path());
    }
    EXPECT_EQ(found, expected) << "the digests of what was replaced are gone, too";
    EXPECT_EQ(names_in("/run/outside"), std::set<std::string>{"kept"});
    EXPECT_EQ(names_in("/mnt/part.persistent").size(), 4u) << "three roots and the kept file";
  }
  EXPECT_EQ(stats.n_syncs_from_peer, std::size(rows));
}

TEST_F(ReconcileTest, ARenameWithoutASourceHereLeavesTheDigests) {
  make_file(0, "dst", pattern(70000));
  scan_lines(ctx);
  receive(tree_path(0, "none") + '\0' + tree_path(0, "dst") + '\0', MSG_LISTING_REQ);
  EXPECT_EQ(stats.n_digest_files_created, 1u) << "the file is not hashed again";
  EXPECT_EQ(stats.n_digest_files_scanned, 1u);
}
