#include "redundancy_health/catalog/tree_scan.h"

#include "tests/unit/daemon_support.h"

namespace {

const std::string kOneX = "11f6ad8ec52a2984abaafd7c3b516503785c2072";
const std::string k65535X = "61fd9f5ce720067d6801bb97049da9fdb4837531";
const std::string k65536X = "fbadff70297af63cddef846e9006c774da8b7fb0";

class TreeScanTest : public DaemonTest {
 protected:
  // The scan lists "abc" files of these relative paths in a root, in any order. With `reason` it
  // fails all the same.
  void expect_listed(char tag, const Lines& relative_paths, const std::string& reason = "") {
    std::set<std::string> expected, listed;
    for (const std::string& path : relative_paths)
      expected.insert(std::string(1, tag) + " " SHA_ABC " 00000000 00000003 G " + path);
    g_flight_recorder.paused = 0;
    reset_cpg_result(ctx);
    for (const std::string& line : scan_lines(ctx))
      EXPECT_TRUE(listed.insert(line).second) << line;
    EXPECT_EQ(listed, expected);
    EXPECT_EQ(ctx->cpg_result.reason, reason.substr(0, 115));
    EXPECT_EQ(ctx->cpg_result.canceled, !reason.empty());
    EXPECT_EQ(ctx->cpg_result.local_ok, 1);
    EXPECT_EQ(g_flight_recorder.paused, !reason.empty()) << "a failure dumps the flight recorder";
  }
};

TEST_F(TreeScanTest, CutsFilesIntoChunks) {
  const struct {
    size_t size;
    Lines chunks;
  } cases[] = {
      {0, {SHA_EMPTY " 00000000 00000000"}},
      {1, {kOneX + " 00000000 00000001"}},
      {65535, {k65535X + " 00000000 0000ffff"}},
      {65536, {k65536X + " 00000000 00010000", SHA_EMPTY " 00010000 00010000"}},
      {65537, {k65536X + " 00000000 00010000", kOneX + " 00010000 00010001"}},
  };
  for (const auto& c : cases) {
    fs::remove_all(tree_path(0, "d"));
    make_file(0, "d/file", std::string(c.size, 'x'));
    Lines expected;
    for (const std::string& chunk : c.chunks)
      expected.push_back("A " + chunk + " G d/file");
    EXPECT_EQ(scan_lines(ctx), expected) << c.size;
    EXPECT_EQ(exists(tree_path(0, "d/.$SyncDigest$file")), c.size > 65536) << c.size;
  }
  EXPECT_EQ(stats.n_filesys_files_scanned, 5u);
  EXPECT_EQ(stats.n_filesys_chunks_scanned, 7u);
  EXPECT_EQ(stats.n_filesys_bytes_scanned, 1 + 65535 + 65536 + 65537);
}

TEST_F(TreeScanTest, RootsInOrderWithTheTagsOfTheRoleAndTheLettersOfTheModes) {
  for (const mode_t mode : {0644, 0664, 0755, 04777, 0640, 0604, 0444, 0244, 0000}) {
    for (uint32_t root = 0; root < 4; ++root)
      make_file(root, std::to_string(root), "abc", mode);
    const bool restricted = mode == 0640 || mode == 0604 || (mode & 0600) != 0600;
    for (const bool requester : {true, false}) {
      Lines expected = {"A0", "V3", requester ? "Q1" : "P1", requester ? "P2" : "Q2"};
      for (std::string& line : expected)
        line = line.substr(0, 1) + " " SHA_ABC " 00000000 00000003 " + (restricted ? "P " : "G ") +
               line.substr(1);
      EXPECT_EQ(scan_lines(ctx, requester), expected) << std::oct << mode;
    }
  }
}

TEST_F(TreeScanTest, ListsEveryRegularFileButTemporariesToDepth16) {
  std::string level16 = "d";
  for (int level = 2; level <= 16; ++level)
    level16 += "/d";
  const Lines listed = {".hidden", ".a/.b",        "TempUpdate",     "xTempUpdate_1", " lead",
                        "a b  c",  "\xc3\xa4\xff", "new\nline",      "d/TempUpdat_",  "-rf",
                        "...",     "tempupdate_x", level16 + "/deep"};
  for (const std::string& path : listed)
    make_file(3, path, "abc");
  for (const char* path : {"TempUpdate_", "TempUpdate_1", "d/e/TempUpdate_x", "TempUpdate_d/in"})
    make_file(3, path, "abc");
  ASSERT_EQ(symlink("-rf", tree_path(3, "link").c_str()), 0);
  ASSERT_EQ(symlink("d", tree_path(3, "dirlink").c_str()), 0);
  ASSERT_EQ(mkfifo(tree_path(3, "fifo").c_str(), 0644), 0);
  expect_listed('V', listed);
  make_file(3, level16 + "/d17/too deep", "abc");
  expect_listed('V', listed,
                "maximum directory depth exceeded in '" + tree_path(3, level16) + "/d17'");
}

TEST_F(TreeScanTest, WhatCannotBeReadIsRecordedAndTheRestListed) {
  make_file(0, "a/kept", "abc");
  const std::string path = make_file(0, "a/file", "abc");
  strcpy(g_diag_params.fail_scan_path, path.c_str());
  expect_listed('A', {"a/kept"}, "could not open file (Numerical argument out of domain): " + path);
  g_diag_params.fail_scan_path[0] = '\0';
  for (const off_t gib : {4, 5}) {
    ASSERT_EQ(truncate(path.c_str(), gib << 30), 0);
    expect_listed('A', {"a/kept"}, "could not read file (File too large): " + path);
  }
  ASSERT_EQ(truncate(path.c_str(), 0), 0);
  {  // A regular file whose first byte cannot be read: there is nothing at address 0.
    const Mount unreadable(path, nullptr, "/proc/self/mem");
    expect_listed('A', {"a/kept"}, "could not read file (Input/output error): " + path);
  }
  unlink(path.c_str());
  fs::remove_all(root_paths[3]);
  expect_listed(
      'A', {"a/kept"},
      "could not open directory (No such file or directory): /var/run/replicated_by_active_em/");
}

}  // namespace
