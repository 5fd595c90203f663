// Files that exchanges delete or replace and that KEEP_REPLACED_MIB keeps.

#include "redundancy_health/transfer/replaced_files.h"
#include "redundancy_health/catalog/kept_set.h"
#include "redundancy_health/exchange/reconcile.h"
#include "redundancy_health/exchange/state_machine.h"
#include "redundancy_health/transfer/exchange_notes.h"
#include "redundancy_health/transfer/incoming.h"
#include "tests/unit/call_hook.h"
#include "tests/unit/daemon_support.h"

namespace {

class ReplacedFilesTest : public DaemonTest {
 protected:
  ReplacedFilesTest() {
    setenv("KEEP_REPLACED_MIB", "1", 1);
  }
  ~ReplacedFilesTest() override {
    g_before_call = nullptr;
    unsetenv("KEEP_REPLACED_MIB");
    forget_kept();
  }

  // An update of the peer, and whether the answer tells of a success.
  void receive(const std::string& payload, bool succeeds = true) {
    DaemonTest::receive(payload);
    EXPECT_EQ(g_cpg.sent.back().header.result.success, succeeds)
        << g_cpg.sent.back().header.result.reason;
  }

  static std::string deletion(const std::string& path) {
    return update(PUSH_DEL_REQ, 0, path, 0, 0, 0);
  }

  // "tree.kind/path: first bytes", by number of the set.
  static Lines kept() {
    Lines lines;
    for (const std::string& name : names_in(kKeptDirectory)) {
      KeptSet set;
      EXPECT_TRUE(parse_kept_set_name(name.c_str(), &set)) << name;
      EXPECT_LE(time(nullptr) - set.time, 60);
      const std::string directory = kKeptDirectory + ("/" + name);
      Lines files;
      for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        if (!entry.is_regular_file()) continue;
        files.push_back(std::string(kept_trees[set.root_index]) + "." + kept_kinds[set.kind] +
                        entry.path().string().substr(directory.size()) + ": " +
                        read_file(entry.path()).substr(0, 9));
      }
      std::sort(files.begin(), files.end());
      lines.insert(lines.end(), files.begin(), files.end());
    }
    return lines;
  }

  Lines told() const {
    Lines lines;
    for (const std::string& line : logged(4))
      if (line.starts_with("Did not keep")) lines.push_back(line);
    return lines;
  }
};

TEST_F(ReplacedFilesTest, WhatAnExchangeTakesAwayIsKeptAsItWasBefore) {
  const std::string large = pattern(200'000), chunk = pattern(65536, 7);
  const auto push_chunk = [&](uint32_t begin) {
    receive(update(PUSH_REQ, 0, "d/large", begin, begin + 65536, 200'000, chunk));
  };
  const struct {
    std::function<void()> change;
    Lines kept;
  } rows[] = {
      {[&] { receive(deletion("d/f")); }, {"active.deleted/d/f: old"}},
      {[&] { receive(push(0, "d/f", "new")); }, {"active.replaced/d/f: old"}},
      {[&] { receive(push(1, "f", "new")); }, {"copy.replaced/f: old"}},
      {[&] { receive(push(3, "f", "new")); }, {}},
      {[&] { receive(push(0, "is new", "new")); }, {}},
      {[&] { push_chunk(0), push_chunk(65536); },
       {"active.replaced/d/large: " + large.substr(0, 9)}},
      {[&] {
         link(tree_path(0, "d/large").c_str(), "/mnt/part.persistent/second");
         push_chunk(0), push_chunk(65536);
       },
       {"active.replaced/d/large: " + large.substr(0, 9)}},
      {[&] {
         unlink(tree_path(0, "d/large").c_str());
         push_chunk(0), push_chunk(65536);
       },
       {}},
      // Objects that are removed for another type of object.
      {[&] { receive(push(0, "d", "new")); },
       {"active.deleted/d/f: old", "active.deleted/d/large: " + large.substr(0, 9)}},
      {[&] { receive(push(0, "d/f/e/new", "new")); }, {"active.replaced/d/f: old"}},
      // The requester's rename, repeated here.
      {[&] {
         DaemonTest::receive(tree_path(0, "d/large") + '\0' + tree_path(0, "d/f") + '\0',
                             MSG_LISTING_REQ);
       },
       {"active.replaced/d/f: old"}},
      // On the requester: files that are no longer in the peer's own tree.
      {[&] { compare_synced_files(ctx, nullptr, 0); }, {"copy.deleted/f: old"}},
  };
  for (const char* mib : {"", "1"}) {
    setenv("KEEP_REPLACED_MIB", mib, 1);
    for (const auto& row : rows) {
      for (const char* root : root_paths)
        fs::remove_all(root), fs::create_directories(root);
      fs::remove_all(kKeptDirectory);
      forget_kept();
      for (const uint32_t root : {0u, 2u, 3u})
        make_file(root, root == 0 ? "d/f" : "f", "old");
      make_file(0, "d/large", large);
      make_file(0, "d/.$SyncDigest$large", "");
      reset_cpg_result(ctx);
      row.change();
      close_notes(ctx);
      EXPECT_EQ(kept(), *mib == '\0' ? Lines() : row.kept) << &row - rows;
      EXPECT_EQ(exists(kKeptDirectory) ? mode_of(kKeptDirectory) : 0700, 0700);
    }
  }
  EXPECT_EQ(told(), Lines());
}

TEST_F(ReplacedFilesTest, TheOldestMakesRoomAndARestartForgetsNothing) {
  const std::string quarter(250'000, 'x');
  const auto exchange = [&](const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      make_file(0, name, name + quarter);
      receive(deletion(name));
    }
    close_notes(ctx);
  };
  exchange({"1"});
  exchange({"2", "3"});
  exchange({"4"});
  forget_kept();
  exchange({"5"});
  const Lines expected = {"active.deleted/4: 4xxxxxxxx", "active.deleted/5: 5xxxxxxxx"};
  Lines now = kept();
  EXPECT_EQ(Lines(now.end() - 2, now.end()), expected);
  EXPECT_EQ(now.size(), 4u) << "no more goes than has to: 1";
  // A file never replaces another kept file of the same exchange.
  exchange({"a", "b", "c", "d", "e", "f"});
  EXPECT_EQ(kept().front(), "active.deleted/a: axxxxxxxx");
  EXPECT_EQ(kept().size(), 4u);
  const std::string text = " files that were deleted or replaced, first (";
  EXPECT_EQ(told().back(), "Did not keep 2" + text + "Disk quota exceeded): " + tree_path(0, "e"));
  // A file that is written in place must be copied.
  for (const size_t size : {size_t{270'000}, size_t{250'000}}) {
    make_file(0, "large", pattern(size));
    receive(update(PUSH_REQ, 0, "large", 0, 1, static_cast<uint32_t>(size), "x"));
    receive(update(PUSH_REQ, 0, "large", 1, 2, static_cast<uint32_t>(size), "x"));
    close_notes(ctx);
    EXPECT_EQ(told().size(), 2u);
  }
  EXPECT_EQ(told().back(), "Did not keep 1" + text + "File too large): " + tree_path(0, "large"));
  EXPECT_EQ(kept().back(), "active.replaced/large: " + pattern(9));
  write_file(tree_path(0, "huge"), "");
  EXPECT_EQ(truncate(tree_path(0, "huge").c_str(), 2 << 20), 0);
  receive(deletion("huge"));
  close_notes(ctx);
  EXPECT_EQ(told().size(), 3u);
  EXPECT_EQ(kept().size(), 4u) << "what is above the limit pushes nothing out";
}

TEST_F(ReplacedFilesTest, AFailureToKeepIsOneLineAndTheChangeIsMade) {
  fs::create_directory("/mnt/elsewhere");
  const std::function<void()> obstacles[] = {
      [] { fs::create_symlink("/mnt/elsewhere", kKeptDirectory); },
      [] { fs::create_directory(kKeptDirectory), chown(kKeptDirectory, 1000, 1000); },
      [] { write_file(kKeptDirectory, ""); },
  };
  for (const auto& obstacle : obstacles) {
    fs::remove_all(kKeptDirectory);
    forget_kept();
    for (const char* path : {"f", "g"})
      make_file(0, path, "old");
    obstacle();
    receive(push(0, "f", "new")), receive(deletion("g"));
    close_notes(ctx);
    EXPECT_EQ(read_file(tree_path(0, "f")), "new");
    EXPECT_EQ(names_in("/mnt/elsewhere").size(), 0u);
  }
  EXPECT_EQ(told().size(), std::size(obstacles)) << testing::PrintToString(told());
  // Nothing is kept for a change that fails.
  fs::remove_all(kKeptDirectory);
  forget_kept();
  for (const char* failing : {"f", "TempUpdate_"}) {
    make_file(0, "f", "old");
    g_before_call = [&](const std::string& name) { return name.starts_with(failing) ? EIO : 0; };
    receive(*failing == 'f' ? deletion("f") : push(0, "f", "new"), false);
    g_before_call = nullptr;
    EXPECT_EQ(kept(), Lines());
  }
}

// Kept files are removed first.
TEST_F(ReplacedFilesTest, AFullDiskFailsNoExchange) {
  const Mount disk("/mnt/part.persistent", "size=400k");
  for (const char* root : root_paths)
    fs::create_directories(root);
  for (int number = 0; number < 9; ++number) {
    const std::string name = std::to_string(number);
    make_file(0, name, std::string(60'000, 'x'));
    receive(push(0, name, std::string(60'000, 'y')));
    receive(update(PUSH_REQ, 0, "large", 0, 50'000, 100'000, std::string(50'000, 'y')));
    receive(deletion(name));
    close_notes(ctx);
    EXPECT_EQ(read_file(tree_path(0, "large")).size(), 100'000u);
  }
  EXPECT_EQ(told(), Lines());
  EXPECT_EQ(kept().back(), "active.deleted/8: yyyyyyyyy");
}

}  // namespace
