#include "redundancy_health/catalog/tree_scan.h"

#include <string.h>
#include <sys/mount.h>

#include <algorithm>
#include <filesystem>

#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/statistics.h"
#include "tests/unit/daemon_support.h"

namespace {

using Lines = std::vector<std::string>;

const std::string kEmpty = "da39a3ee5e6b4b0d3255bfef95601890afd80709";  // SHA-1 of no data
const std::string kAbc = "a9993e364706816aba3e25717850c26c9cd0d89d";    // of "abc"
const std::string kOneX = "11f6ad8ec52a2984abaafd7c3b516503785c2072";
const std::string k65535X = "61fd9f5ce720067d6801bb97049da9fdb4837531";
const std::string k65536X = "fbadff70297af63cddef846e9006c774da8b7fb0";

class TreeScanTest : public DaemonTest {
 protected:
  static std::string abc_line(char tag, const std::string& path, char letter = 'G') {
    return tag + (" " + kAbc + " 00000000 00000003 " + letter + " " + path);
  }

  // The scan lists "abc" files of these relative paths, in any order.
  void expect_listed(char tag, Lines relative_paths) {
    for (std::string& path : relative_paths)
      path = abc_line(tag, path);
    std::sort(relative_paths.begin(), relative_paths.end());
    Lines lines = scan_lines(ctx);
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, relative_paths);
  }

  void expect_failure(const std::string& reason) {
    EXPECT_EQ(ctx->cpg_result.reason, reason.substr(0, 115));
    EXPECT_EQ(ctx->cpg_result.local_ok, 1);
    EXPECT_EQ(ctx->cpg_result.canceled, 1);
    EXPECT_TRUE(has_logged(reason));
    EXPECT_EQ(g_flight_recorder.paused, 1) << "the failure dumps the flight recorder";
    g_flight_recorder.paused = 0;
  }
};

TEST_F(TreeScanTest, CutsFilesIntoChunks) {
  const struct {
    size_t size;
    Lines chunks;
  } cases[] = {
      {0, {kEmpty + " 00000000 00000000"}},
      {1, {kOneX + " 00000000 00000001"}},
      {65535, {k65535X + " 00000000 0000ffff"}},
      {65536, {k65536X + " 00000000 00010000", kEmpty + " 00010000 00010000"}},
      {65537, {k65536X + " 00000000 00010000", kOneX + " 00010000 00010001"}},
      {131072,
       {k65536X + " 00000000 00010000", k65536X + " 00010000 00020000",
        kEmpty + " 00020000 00020000"}},
  };
  size_t n_chunks = 0;
  for (const auto& c : cases) {
    std::filesystem::remove_all(tree_path(0, "d"));
    make_file(0, "d/file", std::string(c.size, 'x'));
    Lines expected;
    for (const std::string& chunk : c.chunks)
      expected.push_back("A " + chunk + " G d/file");
    EXPECT_EQ(scan_lines(ctx), expected) << c.size;
    EXPECT_EQ(stats.n_filesys_chunks_scanned, n_chunks += expected.size());
    EXPECT_EQ(exists(tree_path(0, "d/.$SyncDigest$file")), c.size > 65536) << c.size;
  }
  EXPECT_EQ(stats.n_filesys_files_scanned, std::size(cases));
  EXPECT_EQ(stats.n_filesys_bytes_scanned, 1 + 65535 + 65536 + 65537 + 131072);
}

TEST_F(TreeScanTest, RootsInOrderWithTheTagsOfTheRoleAndTheLettersOfTheModes) {
  for (const mode_t mode :
       std::initializer_list<mode_t>{0644, 0664, 0755, 04777, 0666, 0640, 0604, 0444, 0244, 0000}) {
    for (uint32_t root = 0; root < 4; ++root)
      make_file(root, std::to_string(root), "abc", mode);
    const char letter = mode == 0640 || mode == 0604 || (mode & 0600) != 0600 ? 'P' : 'G';
    const auto line = [&](char tag, const char* path) { return abc_line(tag, path, letter); };
    EXPECT_EQ(scan_lines(ctx, true),
              Lines({line('A', "0"), line('V', "3"), line('Q', "1"), line('P', "2")}))
        << std::oct << mode;
    EXPECT_EQ(scan_lines(ctx, false),
              Lines({line('A', "0"), line('V', "3"), line('P', "1"), line('Q', "2")}));
  }
}

TEST_F(TreeScanTest, ListsEveryRegularFileButTemporaries) {
  const Lines listed = {".hidden",      ".a/.b",  "TempUpdate",   "xTempUpdate_1",
                        " lead",        "a b  c", "\xc3\xa4\xff", "new\nline",
                        "d/TempUpdat_", "-rf",    "...",          "tempupdate_x"};
  for (const std::string& path : listed)
    make_file(3, path, "abc");
  for (const char* path : {"TempUpdate_", "TempUpdate_1", "d/e/TempUpdate_x", "TempUpdate_d/in"})
    make_file(3, path, "abc");
  ASSERT_EQ(symlink("-rf", tree_path(3, "link").c_str()), 0);
  ASSERT_EQ(symlink("d", tree_path(3, "dirlink").c_str()), 0);
  ASSERT_EQ(mkfifo(tree_path(3, "fifo").c_str(), 0644), 0);
  expect_listed('V', listed);
  EXPECT_EQ(ctx->cpg_result.success, 1);
  EXPECT_EQ(logged(-1), Lines()) << "nothing is worth a line";
}

TEST_F(TreeScanTest, SixteenLevelsAndNoMore) {
  std::string level16 = "d";
  for (int level = 2; level <= 16; ++level)
    level16 += "/d";
  make_file(1, level16 + "/deep", "abc");
  make_file(1, "top", "abc");
  expect_listed('Q', {level16 + "/deep", "top"});
  EXPECT_EQ(ctx->cpg_result.success, 1);
  make_file(1, level16 + "/d17/too deep", "abc");
  expect_listed('Q', {level16 + "/deep", "top"});
  expect_failure("maximum directory depth exceeded in '" + tree_path(1, level16) + "/d17'");
}

TEST_F(TreeScanTest, WhatCannotBeReadIsRecordedAndTheRestListed) {
  make_file(0, "kept", "abc");
  make_file(0, "a/kept", "abc");
  const std::string path = make_file(0, "a/file", "abc");
  strcpy(g_diag_params.fail_scan_path, path.c_str());
  expect_listed('A', {"a/kept", "kept"});
  expect_failure("could not open file (Numerical argument out of domain): " + path);
  g_diag_params.fail_scan_path[0] = '\0';

  for (const off_t gib : {4, 5}) {
    ASSERT_EQ(truncate(path.c_str(), gib << 30), 0);
    expect_listed('A', {"a/kept", "kept"});
    expect_failure("could not read file (File too large): " + path);
  }

  // A regular file whose first byte cannot be read: there is nothing at address 0.
  ASSERT_EQ(truncate(path.c_str(), 0), 0);
  ASSERT_EQ(mount("/proc/self/mem", path.c_str(), nullptr, MS_BIND, nullptr), 0);
  expect_listed('A', {"a/kept", "kept"});
  EXPECT_EQ(umount(path.c_str()), 0);
  expect_failure("could not read file (Input/output error): " + path);

  std::filesystem::remove_all(tree_path(0, "a"));
  std::filesystem::remove_all(root_paths[3]);
  expect_listed('A', {"kept"});
  expect_failure(
      "could not open directory (No such file or directory): /var/run/replicated_by_active_em/");
}

}  // namespace
