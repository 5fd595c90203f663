#include "redundancy_health/catalog/digest_file.h"

#include <dirent.h>

#include "redundancy_health/catalog/tree_scan.h"
#include "tests/unit/call_hook.h"
#include "tests/unit/daemon_support.h"

namespace {

const std::string kOneX = "11f6ad8ec52a2984abaafd7c3b516503785c2072";
const std::string k65535X = "61fd9f5ce720067d6801bb97049da9fdb4837531";
const std::string k65536X = "fbadff70297af63cddef846e9006c774da8b7fb0";

constexpr size_t kSize = 200000;
constexpr time_t kMtime = 5000000000;  // above 32 bits
const std::string kHeader = "Digest-V1 200000 5000000000\n";
const std::string kChunks[] = {k65536X + " 00000000 00010000", k65536X + " 00010000 00020000",
                               k65536X + " 00020000 00030000",
                               "b3bc32e78031c8ba92b7fd8e963e2c22de94fcfa 00030000 00030d40"};

// A data file of 200,000 bytes with a fixed modification time, and its digest cache file.
class DigestFileTest : public DaemonTest {
 protected:
  DigestFileTest() {
    for (const std::string& chunk : kChunks) {
      good_digest_ += chunk + "\n";
      data_lines_.push_back("A " + chunk + " G d/data");
    }
    write_data(kSize, 'x', kMtime);
  }

  void write_data(uint64_t size, char byte, time_t mtime) {
    make_file(0, "d/data", byte == '\0' ? "" : std::string(static_cast<size_t>(size), byte));
    ASSERT_EQ(truncate(data_.c_str(), static_cast<off_t>(size)), 0);
    const timespec times[2] = {{mtime, 0}, {mtime, 999999999}};
    ASSERT_EQ(utimensat(AT_FDCWD, data_.c_str(), times, 0), 0);
  }

  // Scans like at the start of an exchange.
  Lines fresh_scan() {
    reset_cpg_result(ctx);
    g_flight_recorder.paused = 0;
    return scan_lines(ctx);
  }

  // Scans with a bad digest cache file, and expects that it is not used and then removed.
  void expect_unused(const std::string& failure) {
    EXPECT_EQ(fresh_scan(), data_lines_) << failure;
    EXPECT_EQ(ctx->cpg_result.reason, failure.substr(0, 115));
    fs::remove(digest_);
  }

  const std::string data_ = tree_path(0, "d/data");
  const std::string digest_ = tree_path(0, "d/.$SyncDigest$data");
  std::string good_digest_ = kHeader;
  Lines data_lines_;
};

TEST_F(DigestFileTest, ServesUntilSizeOrSecondChange) {
  EXPECT_EQ(fresh_scan(), data_lines_);
  EXPECT_EQ(read_file(digest_), good_digest_);
  write_data(kSize, 'y', kMtime);
  chmod(data_.c_str(), 0600);
  strcpy(g_diag_params.fail_scan_path, data_.c_str());  // the data file must not even be opened
  EXPECT_EQ(fresh_scan().at(3), "A " + kChunks[3] + " P d/data");
  EXPECT_EQ(stats.n_digest_files_created + stats.n_filesys_files_scanned, 2u);
  EXPECT_EQ(stats.n_digest_files_scanned, 1u);
  EXPECT_EQ(stats.n_digest_chunks_scanned, 4u);
  EXPECT_EQ(stats.n_digest_bytes_elided, 200000);
  g_diag_params.fail_scan_path[0] = '\0';
  for (const size_t change : {0u, 1u}) {
    write_data(kSize + change, 'y', kMtime + 1);
    EXPECT_EQ(fresh_scan().at(0).substr(2, 40), "6d73b8c081f8e5239f1521a84c73dee30340aaec");
  }
  EXPECT_TRUE(read_file(digest_).starts_with("Digest-V1 200001 5000000001\n"));
}

TEST_F(DigestFileTest, WhatIsNoFileIsNeitherFollowedNorWaitedFor) {
  const std::string quoted = "'" + digest_ + "'";
  ASSERT_EQ(mkdir(digest_.c_str(), 0755), 0);
  expect_unused("Could not read digest file (Is a directory) " + quoted);
  write_file("/run/untouched", "untouched");
  fs::create_symlink("/run/untouched", digest_);
  expect_unused("Could not open digest file (Too many levels of symbolic links): " + digest_);
  fs::create_symlink("/run/nowhere", digest_);
  expect_unused("");
  ASSERT_EQ(mkfifo(digest_.c_str(), 0644), 0);
  expect_unused("");
  EXPECT_EQ(read_file("/run/untouched"), "untouched");
  EXPECT_FALSE(exists("/run/nowhere"));
}

// A digest cache file that another user created or could have written is not trusted.
TEST_F(DigestFileTest, OnlyTheDaemonsOwnIsBelieved) {
  std::string lies = kHeader;
  for (const std::string& chunk : kChunks)
    lies += std::string(40, '0') + chunk.substr(40) + "\n";
  const std::pair<const char*, std::function<void()>> doings[] = {
      {"another's", [&] { chown(digest_.c_str(), 4711, 0); }},
      {"the group's", [&] { chmod(digest_.c_str(), 0664); }},
      {"everybody's", [&] { chmod(digest_.c_str(), 0646); }},
      {"a second link", [&] { link(digest_.c_str(), tree_path(0, "d/TempUpdate_1").c_str()); }},
      {"too long", [&] { write_file(digest_, lies + lies.substr(kHeader.size())); }},
  };
  for (const auto& [what, plant] : doings) {
    SCOPED_TRACE(what);
    write_file(digest_, lies);
    plant();
    EXPECT_EQ(fresh_scan(), data_lines_);
    EXPECT_TRUE(ctx->cpg_result.success);
    EXPECT_EQ(read_file(digest_), good_digest_);
    EXPECT_EQ(mode_of(digest_), 0644);
    struct stat info;
    ASSERT_EQ(lstat(digest_.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, geteuid());
    fs::remove(tree_path(0, "d/TempUpdate_1"));
  }
  // A million lines for a one-byte file are not even read.
  write_data(1, 'x', kMtime);
  std::string million = "Digest-V1 1 5000000000\n";
  for (int i = 0; i < 1000000; ++i)
    million += kOneX + " 00000000 00000001\n";
  write_file(digest_, million);
  EXPECT_EQ(fresh_scan(), Lines{"A " + kOneX + " 00000000 00000001 G d/data"});
  EXPECT_EQ(stats.n_digest_chunks_scanned, 0u);
}

// A digest cache file is cut at any byte, or one of its bytes is changed.
TEST_F(DigestFileTest, ATornOrChangedOneNeverShortensTheListing) {
  for (size_t i = 0; i < good_digest_.size(); ++i) {
    write_file(digest_, good_digest_.substr(0, i));
    const Lines lines = fresh_scan();
    const bool at_line_end = i == 0 || good_digest_[i - 1] == '\n';
    EXPECT_EQ(ctx->cpg_result.success, at_line_end) << i << " " << ctx->cpg_result.reason;
    EXPECT_EQ(at_line_end ? lines : fresh_scan(), data_lines_) << i;
    std::string changed = good_digest_;
    changed[i] = static_cast<char>(changed[i] ^ 0x10);
    write_file(digest_, changed);
    const size_t n_lines = fresh_scan().size();
    EXPECT_TRUE(ctx->cpg_result.success ? n_lines == 4 : fresh_scan() == data_lines_) << i;
  }
  // After the same power failure has emptied its data file, it fails at most one scan.
  write_data(0, 'x', kMtime);
  for (const std::string& torn : {std::string(), std::string(100, '\0'), kHeader.substr(0, 12),
                                  "Digest-V1 0 5000000000\n" + std::string(59, '\0')}) {
    write_file(digest_, torn);
    fresh_scan();
    EXPECT_EQ(fresh_scan(), Lines{"A " SHA_EMPTY " 00000000 00000000 G d/data"});
    EXPECT_TRUE(ctx->cpg_result.success) << torn;
  }
}

TEST_F(DigestFileTest, AFailedWriteRemovesItOrEndsTheExchange) {
  {  // The file system has no space for it.
    const Mount dir(tree_path(0, "d"), "size=200k");
    write_data(kSize, 'x', kMtime);
    make_file(0, "d/filler", std::string(kChunkSize, 'x'));
    EXPECT_EQ(fresh_scan().size(), 5u) << "hashed all the same";
    EXPECT_FALSE(exists(digest_));
    EXPECT_EQ(ctx->cpg_result.success, 1);
    // Of the calls with its name only the second one, which creates it, succeeds.
    int calls = 0;
    g_before_call = [&](const std::string& name) {
      return name == ".$SyncDigest$data" && ++calls != 2 ? EPERM : 0;
    };
    fresh_scan();
    g_before_call = nullptr;
  }
  EXPECT_EQ(ctx->cpg_result.reason, "Corrupt digest file '" + digest_ + "' can't be removed.");
  EXPECT_EQ(ctx->cpg_result.local_ok, 1) << "code 18";
  EXPECT_EQ(sent_messages(), Lines({"MSG_LOCK_REL 0.0"}));
}

// Replaces the C library's function. If a scan went back to the first name of a directory, it would
// treat the names that it then misses as deleted files.
extern "C" void rewinddir(DIR*) noexcept {}

class TreeScanTest : public DaemonTest {
 protected:
  // Expects that a scan lists "abc" files with these relative paths in a root, in any order. With
  // `reason` the scan also fails.
  void expect_listed(char tag, const Lines& relative_paths, const std::string& reason = "") {
    std::multiset<std::string> expected;
    for (const std::string& path : relative_paths)
      expected.insert(std::string(1, tag) + " " SHA_ABC " 00000000 00000003 G " + path);
    g_flight_recorder.paused = 0;
    reset_cpg_result(ctx);
    const Lines lines = scan_lines(ctx);
    EXPECT_EQ(std::multiset(lines.begin(), lines.end()), expected);
    EXPECT_EQ(ctx->cpg_result.reason, reason.substr(0, 115));
    EXPECT_EQ(ctx->cpg_result.canceled, !reason.empty());
    EXPECT_EQ(ctx->cpg_result.local_ok, 1);
    EXPECT_EQ(g_flight_recorder.paused, !reason.empty()) << "a failure dumps the flight recorder";
  }
};

TEST_F(TreeScanTest, CutsFilesIntoChunks) {
  const std::string first = k65536X + " 00000000 00010000";
  for (const auto& [size, chunks] :
       std::vector<std::pair<size_t, Lines>>{{0, {SHA_EMPTY " 00000000 00000000"}},
                                             {1, {kOneX + " 00000000 00000001"}},
                                             {65535, {k65535X + " 00000000 0000ffff"}},
                                             {65536, {first, SHA_EMPTY " 00010000 00010000"}},
                                             {65537, {first, kOneX + " 00010000 00010001"}}}) {
    fs::remove_all(tree_path(0, "d"));
    make_file(0, "d/file", std::string(size, 'x'));
    Lines expected;
    for (const std::string& chunk : chunks)
      expected.push_back("A " + chunk + " G d/file");
    EXPECT_EQ(scan_lines(ctx), expected) << size;
    EXPECT_EQ(exists(tree_path(0, "d/.$SyncDigest$file")), size > 65536) << size;
  }
  EXPECT_EQ(stats.n_filesys_files_scanned, 5u);
  EXPECT_EQ(stats.n_filesys_chunks_scanned, 7u);
  EXPECT_EQ(stats.n_filesys_bytes_scanned, 1 + 65535 + 65536 + 65537);
}

TEST_F(TreeScanTest, ListsEveryRegularFileButTemporariesToDepth16) {
  const std::string level16 = "1/2/3/4/5/6/7/8/9/a/b/c/d/e/f/g";
  const Lines listed = {".hidden",      ".a/.b",        "TempUpdate",     "xTempUpdate_1",
                        " lead",        "\xc3\xa4\xff", "new\nline",      "-rf",
                        "1/TempUpdat_", "...",          level16 + "/deep"};
  for (const std::string& path : listed)
    make_file(3, path, "abc");
  for (const char* path : {"TempUpdate_", "TempUpdate_1", "1/2/TempUpdate_x", "TempUpdate_d/in"})
    make_file(3, path, "abc");
  fs::create_symlink("-rf", tree_path(3, "link"));
  fs::create_symlink("1", tree_path(3, "dirlink"));
  ASSERT_EQ(mkfifo(tree_path(3, "fifo").c_str(), 0644), 0);
  expect_listed('V', listed);
  make_file(3, level16 + "/17/too deep", "abc");
  expect_listed('V', listed,
                "maximum directory depth exceeded in '" + tree_path(3, level16) + "/17'");
}

TEST_F(TreeScanTest, WhatCannotBeReadIsRecordedAndTheRestListed) {
  make_file(0, "a/kept", "abc");
  const std::string path = make_file(0, "a/file", "abc");
  strcpy(g_diag_params.fail_scan_path, path.c_str());
  expect_listed('A', {"a/kept"}, "could not open file (Numerical argument out of domain): " + path);
  g_diag_params.fail_scan_path[0] = '\0';
  ASSERT_EQ(truncate(path.c_str(), off_t{4} << 30), 0);
  expect_listed('A', {"a/kept"}, "could not read file (File too large): " + path);
  ASSERT_EQ(truncate(path.c_str(), 0), 0);
  {  // A regular file whose first byte cannot be read: address 0 is not mapped.
    const Mount unreadable(path, nullptr, "/proc/self/mem");
    expect_listed('A', {"a/kept"}, "could not read file (Input/output error): " + path);
  }
  unlink(path.c_str());
  // One byte too long for the prefix of a digest cache file.
  const std::string long_name(243, 'n');
  const std::string long_path = make_file(0, "a/" + long_name, "abc");
  expect_listed('A', {"a/kept", "a/" + long_name},
                "Could not determine status of digest file (File name too long): " +
                    tree_path(0, "a/.$SyncDigest$" + long_name));
  unlink(long_path.c_str());
  fs::remove_all(root_paths[3]);
  expect_listed(
      'A', {"a/kept"},
      "could not open directory (No such file or directory): /var/run/replicated_by_active_em/");
}

}  // namespace
