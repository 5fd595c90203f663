#include "redundancy_health/catalog/digest_file.h"

#include <fcntl.h>
#include <string.h>
#include <sys/mount.h>

#include <algorithm>
#include <filesystem>

#include "redundancy_health/catalog/tree_scan.h"
#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/statistics.h"
#include "tests/unit/daemon_support.h"

namespace {

using Lines = std::vector<std::string>;

constexpr size_t kSize = 200000;
constexpr time_t kMtime = 1700000000;
const std::string kHeader = "Digest-V1 200000 1700000000\n";
const std::string kChunks[] = {"fbadff70297af63cddef846e9006c774da8b7fb0 00000000 00010000",
                               "fbadff70297af63cddef846e9006c774da8b7fb0 00010000 00020000",
                               "fbadff70297af63cddef846e9006c774da8b7fb0 00020000 00030000",
                               "b3bc32e78031c8ba92b7fd8e963e2c22de94fcfa 00030000 00030d40"};

// One data file of 200,000 bytes with a fixed modification time, and its digest cache file.
class DigestFileTest : public DaemonTest {
 protected:
  DigestFileTest() {
    for (const std::string& chunk : kChunks) {
      good_digest_ += chunk + "\n";
      data_lines_.push_back("A " + chunk + " G d/data");
    }
    write_data(kSize, 'x', kMtime);
  }

  void write_data(size_t size, char byte, time_t mtime) {
    make_file(0, "d/data", std::string(size, byte));
    const timespec times[2] = {{mtime, 0}, {mtime, 999999999}};
    ASSERT_EQ(utimensat(AT_FDCWD, data_.c_str(), times, 0), 0);
  }

  // Scans as at the start of an exchange.
  Lines fresh_scan() {
    reset_cpg_result(ctx);
    g_flight_recorder.paused = 0;
    empty_flight_recorder();
    return scan_lines(ctx);
  }

  const std::string data_ = tree_path(0, "d/data");
  const std::string digest_ = tree_path(0, "d/.$SyncDigest$data");
  const std::string stale_message_ = "Digest file '" + digest_ + "' has stale data. Ignoring";
  std::string good_digest_ = kHeader;
  Lines data_lines_;
};

TEST_F(DigestFileTest, ServesUntilSizeOrSecondChange) {
  EXPECT_EQ(fresh_scan(), data_lines_);
  EXPECT_EQ(read_file(digest_), good_digest_);

  write_data(kSize, 'y', kMtime);
  chmod(data_.c_str(), 0600);
  strcpy(g_diag_params.fail_scan_path, data_.c_str());  // the data file is not even opened
  EXPECT_EQ(fresh_scan().at(3), "A " + kChunks[3] + " P d/data");
  EXPECT_EQ(ctx->cpg_result.success, 1);
  EXPECT_EQ(stats.n_digest_files_created, 1u);
  EXPECT_EQ(stats.n_digest_files_scanned, 1u);
  EXPECT_EQ(stats.n_digest_chunks_scanned, 4u);
  EXPECT_EQ(stats.n_digest_bytes_elided, 200000);
  EXPECT_EQ(stats.n_filesys_files_scanned, 1u);
  EXPECT_EQ(logged(-1), Lines());
  g_diag_params.fail_scan_path[0] = '\0';

  write_data(kSize, 'y', kMtime + 1);
  EXPECT_EQ(fresh_scan().at(0).substr(2, 40), "6d73b8c081f8e5239f1521a84c73dee30340aaec");
  EXPECT_EQ(read_file(digest_).substr(0, 28), "Digest-V1 200000 1700000001\n");
  write_data(kSize + 1, 'y', kMtime + 1);
  fresh_scan();
  EXPECT_EQ(read_file(digest_).substr(0, 28), "Digest-V1 200001 1700000001\n");
  write_data(3, 'y', kMtime);
  EXPECT_EQ(fresh_scan().size(), 1u);
  EXPECT_TRUE(exists(digest_)) << "below the limit it stays as it is";
  EXPECT_EQ(logged(-1), Lines(3, stale_message_));
  EXPECT_EQ(ctx->cpg_result.success, 1);
}

// Only digest cache files let a scan of such sizes be quick.
TEST_F(DigestFileTest, SizesHave32BitsAndTimesMore) {
  constexpr uint64_t kGiB = 1 << 30;
  for (const uint64_t data_size : {3 * kGiB, 4 * kGiB - 1, 4 * kGiB, 5 * kGiB}) {
    write_data(0, 'x', kMtime);
    ASSERT_EQ(truncate(data_.c_str(), static_cast<off_t>(data_size)), 0);
    const timespec times[2] = {{5000000000, 0}, {5000000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, data_.c_str(), times, 0), 0);
    const auto size = static_cast<uint32_t>(data_size);
    std::string digests = "Digest-V1 " + std::to_string(size) + " 5000000000\n", last;
    for (uint64_t offset = 0; offset <= size; offset += kChunkSize) {
      char offsets[32];
      snprintf(offsets, sizeof offsets, " %08x %08x", static_cast<unsigned>(offset),
               static_cast<unsigned>(std::min(offset + kChunkSize, uint64_t{size})));
      last = std::string(40, 'a') + offsets;
      digests += last + "\n";
    }
    write_file(digest_, digests);
    stats.n_digest_bytes_elided = 0;
    reset_cpg_result(ctx);
    FileEntry* list = nullptr;
    scan_replicated_roots(ctx, &list, true);
    if (data_size == size) {
      ASSERT_NE(list, nullptr) << size;
      EXPECT_EQ(list->xmit_line, "A " + last + " G d/data");
      EXPECT_EQ(list->file_size, size);
      EXPECT_EQ(stats.n_digest_bytes_elided, size);
      EXPECT_EQ(ctx->cpg_result.success, 1);
    } else {
      EXPECT_EQ(list, nullptr) << "one that only fits the lower bits of the size";
      EXPECT_EQ(ctx->cpg_result.reason, "could not read file (File too large): " + data_);
    }
    free_file_list(&list);
  }
}

TEST_F(DigestFileTest, BadOnesAreRecordedOnceAndReplaced) {
  const std::string line(40, 'a');
  const std::string bad_header = "Invalid digest file header in '" + digest_ + "'";
  const std::string bad_contents = "Invalid digest file contents '" + digest_ + "'";
  for (const auto& [content, expected] : std::vector<std::pair<std::string, std::string>>{
           {"", "Could not read digest file (Success) '" + digest_ + "'"},
           {"Digest-V1 200000 1700000000 \n", bad_header},
           {"Digest-V2 200000 1700000000\n", bad_header},
           {std::string("\0\n", 2), bad_header},
           {kHeader + line + " 00000000 00010000\r\n", bad_contents},
           {kHeader + line + " 00000000 00010001\n", bad_contents},
           {kHeader + line + " 00010000 00000000\n", bad_contents},
           {kHeader + std::string(300, '0') + "\n", bad_contents},
           {good_digest_ + "more\n", bad_contents}}) {
    write_file(digest_, content);
    const Lines lines = fresh_scan();
    EXPECT_EQ(ctx->cpg_result.reason, expected) << content;
    EXPECT_TRUE(has_logged(expected));
    EXPECT_EQ(ctx->cpg_result.canceled, 1);
    EXPECT_EQ(ctx->cpg_result.local_ok, 1);
    EXPECT_EQ(g_flight_recorder.paused, expected != bad_header) << content;
    EXPECT_EQ(Lines(lines.end() - 4, lines.end()), data_lines_);
    EXPECT_EQ(read_file(digest_), good_digest_);
  }
}

// Power fails at any byte of a digest cache file, or its disk changes one.
TEST_F(DigestFileTest, ATornOrChangedOneNeverShortensTheListing) {
  for (size_t i = 0; i < good_digest_.size(); ++i) {
    write_file(digest_, good_digest_.substr(0, i));
    const Lines lines = fresh_scan();
    const bool at_line_end = i > 0 && good_digest_[i - 1] == '\n';
    EXPECT_EQ(ctx->cpg_result.success, at_line_end) << i << " " << ctx->cpg_result.reason;
    EXPECT_EQ(at_line_end ? lines : fresh_scan(), data_lines_) << i;
    for (const char mask : {'\x01', '\x10', good_digest_[i]}) {
      std::string changed = good_digest_;
      changed[i] = static_cast<char>(changed[i] ^ mask);
      write_file(digest_, changed);
      const size_t n_lines = fresh_scan().size();
      EXPECT_TRUE(ctx->cpg_result.success ? n_lines == 4 : fresh_scan() == data_lines_) << i;
    }
  }
  EXPECT_TRUE(has_logged(stale_message_));
}

TEST_F(DigestFileTest, WhatIsNoFileIsNotFollowedNorWaitedFor) {
  write_file("/run/outside", "untouched");
  const auto expect_unused = [&](const std::string& failure, const std::string& create_error) {
    EXPECT_EQ(fresh_scan(), data_lines_);
    EXPECT_EQ(ctx->cpg_result.reason, failure.substr(0, 115));
    EXPECT_TRUE(has_logged("Could not open digest file '" + digest_ + "': " + create_error));
    std::filesystem::remove(digest_);
  };
  const std::string loop = "Too many levels of symbolic links";
  ASSERT_EQ(mkdir(digest_.c_str(), 0755), 0);
  expect_unused("Could not read digest file (Is a directory) '" + digest_ + "'", "Is a directory");
  ASSERT_EQ(symlink("/run/outside", digest_.c_str()), 0);
  expect_unused("Could not open digest file (" + loop + "): " + digest_, loop);
  ASSERT_EQ(symlink("/run/nowhere", digest_.c_str()), 0);
  expect_unused("", loop);
  ASSERT_EQ(mkfifo(digest_.c_str(), 0644), 0);
  expect_unused("Could not read digest file (Success) '" + digest_ + "'",
                "No such device or address");
  EXPECT_EQ(read_file("/run/outside"), "untouched");
  unlink("/run/outside");
  EXPECT_FALSE(exists("/run/nowhere"));

  const std::string name(243, 'n');  // leaves no room for the prefix
  make_file(0, name, "abc");
  EXPECT_EQ(fresh_scan().size(), 5u);
  EXPECT_TRUE(has_logged("Could not determine status of digest file (File name too long): " +
                         tree_path(0, ".$SyncDigest$" + name)));
}

TEST_F(DigestFileTest, OrphansAreDeleted) {
  fresh_scan();
  unlink(data_.c_str());
  EXPECT_EQ(fresh_scan(), Lines());
  EXPECT_EQ(logged(-1), Lines({"Found orphaned digest file '" + digest_ + "'; Deleting it."}));
  EXPECT_FALSE(exists(digest_));

  // Anything by the data file's name keeps it; the bare prefix has the directory as its data file.
  mkdir(data_.c_str(), 0755);
  const std::string bare = make_file(0, "d/.$SyncDigest$", "x");
  write_file(digest_, "x");
  EXPECT_EQ(fresh_scan(), Lines());
  EXPECT_TRUE(exists(digest_) && exists(bare));
  EXPECT_EQ(logged(-1).size(), 1u);
  rmdir(data_.c_str());
  ASSERT_EQ(symlink("data", data_.c_str()), 0);
  fresh_scan();
  EXPECT_TRUE(has_logged(
      "Could not determine status of target file (Too many levels of symbolic links): " + data_));

  unlink(data_.c_str());
  ASSERT_EQ(mount(digest_.c_str(), digest_.c_str(), nullptr, MS_BIND, nullptr), 0);
  fresh_scan();
  EXPECT_EQ(umount(digest_.c_str()), 0);
  EXPECT_TRUE(
      has_logged("Could not delete orphaned digest file (Device or resource busy): " + digest_));
  EXPECT_EQ(ctx->cpg_result.canceled, 1);
  EXPECT_EQ(g_flight_recorder.paused, 0) << "an expected error";
}

TEST_F(DigestFileTest, AFailedWriteRemovesItOrEndsTheExchange) {
  ctx->cur_state = ST_UPDATE;
  // A file system of one page beside its directory, and a data file that takes no page.
  const std::string dir = tree_path(0, "d");
  ASSERT_EQ(mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=4k"), 0);
  make_file(0, "d/filler", "x");
  write_file(data_, "");
  ASSERT_EQ(truncate(data_.c_str(), 70000), 0);
  EXPECT_EQ(fresh_scan().size(), 3u) << "hashed all the same";
  EXPECT_FALSE(exists(digest_));
  EXPECT_EQ(logged(-1).at(1), "Error occurred updating digest file '" + digest_ +
                                  "'; removing it: No space left on device");
  EXPECT_EQ(ctx->cpg_result.success, 1);
  EXPECT_EQ(umount(dir.c_str()), 0);

  // Nothing can be written to /dev/full, and a mount point cannot be removed.
  write_file(digest_, "");
  ASSERT_EQ(mount("/dev/full", digest_.c_str(), nullptr, MS_BIND, nullptr), 0);
  fresh_scan();
  EXPECT_EQ(umount(digest_.c_str()), 0);
  EXPECT_TRUE(has_logged("Error occurred removing bad digest file '" + digest_ +
                         "': Device or resource busy"));
  EXPECT_EQ(ctx->cpg_result.reason, "Corrupt digest file '" + digest_ + "' can't be removed.");
  EXPECT_EQ(ctx->cpg_result.local_ok, 0) << "code 18";
  EXPECT_EQ(sent_messages(), Lines({"MSG_LOCK_REL 0.0"}));
}

}  // namespace
