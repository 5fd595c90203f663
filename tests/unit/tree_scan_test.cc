#include "redundancy_health/catalog/tree_scan.h"

#include <fcntl.h>
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

const char kEmpty[] = "da39a3ee5e6b4b0d3255bfef95601890afd80709";  // SHA-1 of no data
const char kAbc[] = "a9993e364706816aba3e25717850c26c9cd0d89d";    // of "abc"
const char kOneX[] = "11f6ad8ec52a2984abaafd7c3b516503785c2072";
const char k65535X[] = "61fd9f5ce720067d6801bb97049da9fdb4837531";
const char k65536X[] = "fbadff70297af63cddef846e9006c774da8b7fb0";

class TreeScanTest : public DaemonTest {
 protected:
  // What the scan tells about "abc" files, by their relative paths, sorted.
  static Lines abc_lines(char tag, std::vector<std::string> relative_paths) {
    std::sort(relative_paths.begin(), relative_paths.end());
    Lines lines;
    for (const std::string& path : relative_paths) {
      lines.push_back(std::string(1, tag) + " " + kAbc + " 00000000 00000003 G " + path);
    }
    return lines;
  }

  Lines sorted_scan() {
    Lines lines = scan_lines(ctx);
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  void expect_failure(const std::string& reason) {
    EXPECT_EQ(ctx->cpg_result.reason, reason.substr(0, 115));
    EXPECT_EQ(ctx->cpg_result.success, 0);
    EXPECT_EQ(ctx->cpg_result.local_ok, 1);
    EXPECT_EQ(ctx->cpg_result.canceled, 1);
    const Lines errors = logged(3);
    EXPECT_NE(std::find(errors.begin(), errors.end(), reason), errors.end()) << reason;
    EXPECT_EQ(g_flight_recorder.paused, 1) << "the failure dumps the flight recorder";
  }
};

TEST_F(TreeScanTest, CutsFilesIntoChunks) {
  const struct {
    size_t size;
    Lines chunks;
  } cases[] = {
      {0, {std::string(kEmpty) + " 00000000 00000000"}},
      {1, {std::string(kOneX) + " 00000000 00000001"}},
      {65535, {std::string(k65535X) + " 00000000 0000ffff"}},
      {65536,
       {std::string(k65536X) + " 00000000 00010000", std::string(kEmpty) + " 00010000 00010000"}},
      {65537,
       {std::string(k65536X) + " 00000000 00010000", std::string(kOneX) + " 00010000 00010001"}},
      {131072,
       {std::string(k65536X) + " 00000000 00010000", std::string(k65536X) + " 00010000 00020000",
        std::string(kEmpty) + " 00020000 00020000"}},
  };
  for (const auto& c : cases) {
    const std::string path = make_file(0, "file", std::string(c.size, 'x'));
    stats.n_filesys_files_scanned = 0;
    stats.n_filesys_chunks_scanned = 0;
    stats.n_filesys_bytes_scanned = 0;
    Lines expected;
    for (const std::string& chunk : c.chunks)
      expected.push_back("A " + chunk + " G file");

    EXPECT_EQ(scan_lines(ctx), expected) << c.size;
    EXPECT_EQ(stats.n_filesys_files_scanned, 1u);
    EXPECT_EQ(stats.n_filesys_chunks_scanned, c.chunks.size());
    EXPECT_EQ(stats.n_filesys_bytes_scanned, static_cast<int64_t>(c.size));
    EXPECT_EQ(exists(tree_path(0, ".$SyncDigest$file")), c.size > 65536) << c.size;
    unlink(path.c_str());
    scan_lines(ctx);
  }
  EXPECT_EQ(ctx->cpg_result.success, 1);
  EXPECT_EQ(logged(3), Lines());
}

TEST_F(TreeScanTest, RootsInOrderWithTheTagsOfTheRole) {
  for (uint32_t root = 0; root < 4; ++root)
    make_file(root, "in " + std::to_string(root), "abc");
  const std::string chunk = std::string(" ") + kAbc + " 00000000 00000003 G in ";
  EXPECT_EQ(scan_lines(ctx, true),
            Lines({"A" + chunk + "0", "V" + chunk + "3", "Q" + chunk + "1", "P" + chunk + "2"}));
  EXPECT_EQ(scan_lines(ctx, false),
            Lines({"A" + chunk + "0", "V" + chunk + "3", "P" + chunk + "1", "Q" + chunk + "2"}));
}

TEST_F(TreeScanTest, NamesComeAsTheDirectoryYieldsThem) {
  for (const char* path : {"a", "sub/x", "sub/y", "m", "z"})
    make_file(1, path, "abc");
  std::vector<std::string> expected;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root_paths[1])) {
    if (!entry.is_directory()) expected.push_back(entry.path().lexically_relative(root_paths[1]));
  }
  std::vector<std::string> names;
  for (const std::string& line : scan_lines(ctx))
    names.push_back(line.substr(63));
  EXPECT_EQ(names, expected);
}

TEST_F(TreeScanTest, PermissionLetter) {
  const struct {
    mode_t mode;
    char letter;
  } cases[] = {{0644, 'G'}, {0664, 'G'}, {0755, 'G'}, {04777, 'G'}, {0640, 'P'}, {0600, 'P'},
               {0604, 'P'}, {0444, 'P'}, {0244, 'P'}, {0666, 'G'},  {0000, 'P'}, {0622, 'P'}};
  for (const auto& c : cases) {
    make_file(2, "file", "abc", c.mode);
    EXPECT_EQ(scan_lines(ctx),
              Lines({std::string("P ") + kAbc + " 00000000 00000003 " + c.letter + " file"}))
        << std::oct << c.mode;
  }
}

TEST_F(TreeScanTest, ListsEveryRegularFileButTemporaries) {
  const std::vector<std::string> listed = {
      ".hidden",      ".a/.b",     "TempUpdate",    "xTempUpdate_1", " lead", "a b  c",
      "\xc3\xa4\xff", "new\nline", "d/TempUpdat_e", "-rf",           "...",   "tempupdate_x"};
  for (const std::string& path : listed)
    make_file(3, path, "abc");
  for (const char* path : {"TempUpdate_", "TempUpdate_1", "d/e/TempUpdate_x", "TempUpdate_d/in",
                           "d/TempUpdate_d/e/in"})
    make_file(3, path, "abc");
  make_file(3, "d/kept", "abc");
  ASSERT_EQ(symlink("kept", tree_path(3, "d/link").c_str()), 0);
  ASSERT_EQ(symlink("d", tree_path(3, "dirlink").c_str()), 0);
  ASSERT_EQ(symlink("nowhere", tree_path(3, "dangling").c_str()), 0);
  ASSERT_EQ(mkfifo(tree_path(3, "fifo").c_str(), 0644), 0);
  ASSERT_EQ(mkdir(tree_path(3, "empty").c_str(), 0755), 0);
  std::vector<std::string> expected = listed;
  expected.push_back("d/kept");
  EXPECT_EQ(sorted_scan(), abc_lines('V', expected));
  EXPECT_EQ(ctx->cpg_result.success, 1);
  EXPECT_EQ(logged(-1), Lines()) << "nothing is worth a line";
}

TEST_F(TreeScanTest, SixteenLevelsAndNoMore) {
  std::string level16;
  for (int level = 1; level <= 16; ++level)
    level16 += (level > 1 ? "/d" : "d") + std::to_string(level);
  make_file(1, level16 + "/deep", "abc");
  EXPECT_EQ(sorted_scan(), abc_lines('Q', {level16 + "/deep"}));
  EXPECT_EQ(ctx->cpg_result.success, 1);

  make_file(1, level16 + "/d17/too deep", "abc");
  make_file(1, level16 + "/z", "abc");
  make_file(1, "top", "abc");
  EXPECT_EQ(sorted_scan(), abc_lines('Q', {level16 + "/deep", level16 + "/z", "top"}));
  expect_failure("maximum directory depth exceeded in '" + tree_path(1, level16) + "/d17'");
}

TEST_F(TreeScanTest, WhatCannotBeReadIsRecordedAndTheRestListed) {
  make_file(0, "kept", "abc");
  make_file(0, "a/kept", "abc");
  const Lines rest = abc_lines('A', {"a/kept", "kept"});
  const std::string path = make_file(0, "a/file", "abc");

  strcpy(g_diag_params.fail_scan_path, path.c_str());
  EXPECT_EQ(sorted_scan(), rest);
  expect_failure("could not open file (Numerical argument out of domain): " + path);
  g_diag_params.fail_scan_path[0] = '\0';
  EXPECT_EQ(stats.n_filesys_files_scanned, 2u);

  g_flight_recorder.paused = 0;
  ASSERT_EQ(truncate(path.c_str(), off_t{1} << 32), 0);
  EXPECT_EQ(sorted_scan(), rest);
  expect_failure("could not read file (File too large): " + path);
  EXPECT_FALSE(exists(tree_path(0, "a/.$SyncDigest$file")));

  // A regular file whose first byte cannot be read: there is nothing at address 0.
  g_flight_recorder.paused = 0;
  ASSERT_EQ(truncate(path.c_str(), 0), 0);
  ASSERT_EQ(mount("/proc/self/mem", path.c_str(), nullptr, MS_BIND, nullptr), 0);
  stats.n_filesys_files_scanned = 0;
  stats.n_filesys_chunks_scanned = 0;
  EXPECT_EQ(sorted_scan(), rest);
  expect_failure("could not read file (Input/output error): " + path);
  EXPECT_EQ(stats.n_filesys_files_scanned, 3u);
  EXPECT_EQ(stats.n_filesys_chunks_scanned, 2u);
  EXPECT_EQ(umount(path.c_str()), 0);
}

TEST_F(TreeScanTest, AMissingRootDoesNotHideTheOthers) {
  make_file(0, "x", "abc");
  make_file(2, "x", "abc");
  std::filesystem::remove_all(root_paths[1]);
  std::filesystem::remove_all(root_paths[3]);
  write_file("/var/run/replicated_by_active_em", "no directory");
  const std::string chunk = std::string(" ") + kAbc + " 00000000 00000003 G x";
  EXPECT_EQ(scan_lines(ctx), Lines({"A" + chunk, "P" + chunk}));
  expect_failure(
      "could not open directory (No such file or directory): "
      "/mnt/part.persistent/replicated_by_this_em/");
  EXPECT_TRUE(
      has_logged("could not open directory (Not a directory): /var/run/replicated_by_active_em/"));
  unlink("/var/run/replicated_by_active_em");
}

}  // namespace
