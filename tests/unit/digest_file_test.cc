#include "redundancy_health/catalog/digest_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>

#include <filesystem>

#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "redundancy_health/frame/statistics.h"
#include "tests/unit/daemon_support.h"
#include "tests/unit/failing_syscall.h"

namespace {

using Lines = std::vector<std::string>;

const char kFullChunk[] = "fbadff70297af63cddef846e9006c774da8b7fb0";  // 65,536 times 'x'
const char kLastChunk[] = "b3bc32e78031c8ba92b7fd8e963e2c22de94fcfa";  // 3,392 times 'x'
constexpr size_t kSize = 200000;
constexpr time_t kMtime = 1700000000;

// One data file of 200,000 bytes with a fixed modification time, and its digest cache file.
class DigestFileTest : public DaemonTest {
 protected:
  DigestFileTest()
      : data_(make_file(0, "d/data", std::string(kSize, 'x'))),
        digest_(tree_path(0, "d/.$SyncDigest$data")) {
    set_mtime(data_, kMtime);
  }

  static void set_mtime(const std::string& path, time_t mtime) {
    const timespec times[2] = {{mtime, 0}, {mtime, 999999999}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }

  static std::string digest_lines() {
    return std::string(kFullChunk) + " 00000000 00010000\n" + kFullChunk + " 00010000 00020000\n" +
           kFullChunk + " 00020000 00030000\n" + kLastChunk + " 00030000 00030d40\n";
  }

  static std::string good_digest() {
    return "Digest-V1 200000 1700000000\n" + digest_lines();
  }

  static Lines data_lines(const char* letter = "G") {
    const std::string end = std::string(" ") + letter + " d/data";
    return {std::string("A ") + kFullChunk + " 00000000 00010000" + end,
            std::string("A ") + kFullChunk + " 00010000 00020000" + end,
            std::string("A ") + kFullChunk + " 00020000 00030000" + end,
            std::string("A ") + kLastChunk + " 00030000 00030d40" + end};
  }

  // Scans as at the start of an exchange.
  Lines fresh_scan() {
    reset_cpg_result(ctx);
    g_flight_recorder.paused = 0;
    for (Relaxed<uint32_t>* counter :
         {&stats.n_filesys_files_scanned, &stats.n_digest_files_scanned,
          &stats.n_filesys_chunks_scanned, &stats.n_digest_chunks_scanned,
          &stats.n_digest_files_created})
      *counter = 0;
    stats.n_digest_bytes_elided = 0;
    return scan_lines(ctx);
  }

  std::string reason() const {
    return ctx->cpg_result.reason;
  }

  std::string stale_message() const {
    return "Digest file '" + digest_ + "' has stale data. Ignoring";
  }

  std::string data_;
  std::string digest_;
};

TEST_F(DigestFileTest, PathIsThePrefixedName) {
  const struct {
    const char* path;
    const char* digest_path;
  } cases[] = {
      {"/mnt/x/data.bin", "/mnt/x/.$SyncDigest$data.bin"},
      {"N", ".$SyncDigest$N"},
      {"/mnt/x/", "/mnt/x/.$SyncDigest$"},
      {"/.$SyncDigest$d/x", "/.$SyncDigest$d/.$SyncDigest$x"},
      {"/d/.$SyncDigest", "/d/.$SyncDigest$.$SyncDigest"},
      {"/d/.$SyncDigest$", nullptr},
      {".$SyncDigest$x", nullptr},
      {"/a%s/b%n", "/a%s/.$SyncDigest$b%n"},
  };
  for (const auto& c : cases) {
    char* digest_path = compute_digest_path(c.path);
    EXPECT_STREQ(digest_path, c.digest_path) << c.path;
    free(digest_path);
  }
}

TEST_F(DigestFileTest, IsWrittenByTheFirstScanAndServesTheSecond) {
  EXPECT_EQ(fresh_scan(), data_lines());
  EXPECT_EQ(read_file(digest_), good_digest());
  EXPECT_EQ(stats.n_digest_files_created, 1u);
  EXPECT_EQ(stats.n_digest_files_scanned, 0u);
  chmod(data_.c_str(), 0600);

  EXPECT_EQ(fresh_scan(), data_lines("P"));
  EXPECT_EQ(stats.n_digest_files_created, 0u);
  EXPECT_EQ(stats.n_digest_files_scanned, 1u);
  EXPECT_EQ(stats.n_digest_chunks_scanned, 4u);
  EXPECT_EQ(stats.n_digest_bytes_elided, 200000);
  EXPECT_EQ(stats.n_filesys_files_scanned, 0u);
  EXPECT_EQ(logged(-1), Lines());

  strcpy(g_diag_params.fail_scan_path, data_.c_str());
  EXPECT_EQ(fresh_scan(), data_lines("P")) << "the data file is not opened";
  EXPECT_EQ(ctx->cpg_result.success, 1);
}

TEST_F(DigestFileTest, SizeAndSecondMakeItStaleAndNothingElse) {
  fresh_scan();
  write_file(data_, std::string(kSize, 'y'));
  set_mtime(data_, kMtime);
  EXPECT_EQ(fresh_scan(), data_lines());

  set_mtime(data_, kMtime + 1);
  EXPECT_EQ(fresh_scan().at(0).substr(2, 40), "6d73b8c081f8e5239f1521a84c73dee30340aaec");
  EXPECT_EQ(logged(-1), Lines({stale_message()}));
  EXPECT_EQ(read_file(digest_).substr(0, 28), "Digest-V1 200000 1700000001\n");

  write_file(data_, std::string(kSize + 1, 'x'));
  set_mtime(data_, kMtime + 1);
  fresh_scan();
  EXPECT_EQ(logged(7), Lines(2, stale_message()));
  EXPECT_EQ(read_file(digest_).substr(0, 28), "Digest-V1 200001 1700000001\n");
  EXPECT_EQ(ctx->cpg_result.success, 1);

  // A file that has shrunk below the limit keeps its stale digest cache file.
  write_file(data_, "abc");
  for (size_t messages = 3; messages < 5; ++messages) {
    EXPECT_EQ(fresh_scan().size(), 1u);
    EXPECT_EQ(logged(7).size(), messages);
    EXPECT_TRUE(exists(digest_));
  }
  write_file(digest_, "Digest-V1 3 -1\nfoo 00000000 00000003\n");
  set_mtime(data_, -1);
  EXPECT_EQ(fresh_scan(), Lines({"A foo 00000000 00000003 G d/data"})) << "trusted as it stands";
}

TEST_F(DigestFileTest, BadOnesAreRecordedOnceAndReplaced) {
  const std::string header = "Digest-V1 200000 1700000000\n";
  const std::string digest(40, 'a');
  const struct {
    std::string content;
    const char* before_path;  // of the message
    size_t accepted;          // lines before the bad one
    bool dumps;
  } cases[] = {
      {"", "Could not read digest file (Success) '", 0, true},
      {"Digest-V1 200000 1700000000", "Invalid digest file header in '", 0, false},
      {"Digest-V1 200000 1700000000 \n", "Invalid digest file header in '", 0, false},
      {"Digest-V2 200000 1700000000\n", "Invalid digest file header in '", 0, false},
      {std::string("\0\n", 2), "Invalid digest file header in '", 0, false},
      {header + digest + " 00000000 00010000 \n", "Invalid digest file contents '", 0, true},
      {header + digest + " 00000000 00010000\r\n", "Invalid digest file contents '", 0, true},
      {header + digest + " 00000000 00010000", "Invalid digest file contents '", 0, true},
      {header + digest + " 00000000 00010001\n", "Invalid digest file contents '", 0, true},
      {header + digest + " 00010000 00000000\n", "Invalid digest file contents '", 0, true},
      {header + std::string(300, '0') + "\n", "Invalid digest file contents '", 0, true},
      {header + digest_lines() + "more\n", "Invalid digest file contents '", 4, true},
  };
  for (const auto& c : cases) {
    write_file(digest_, c.content);
    const Lines lines = fresh_scan();
    EXPECT_EQ(reason(), c.before_path + digest_ + "'") << c.content;
    EXPECT_TRUE(has_logged(reason()));
    EXPECT_EQ(ctx->cpg_result.canceled, 1);
    EXPECT_EQ(ctx->cpg_result.local_ok, 1);
    EXPECT_EQ(g_flight_recorder.paused, c.dumps) << c.content;
    EXPECT_EQ(lines.size(), 4 + c.accepted) << c.content;
    EXPECT_EQ(Lines(lines.end() - 4, lines.end()), data_lines());
    EXPECT_EQ(stats.n_digest_chunks_scanned, c.accepted);
    EXPECT_EQ(stats.n_digest_files_scanned, 0u);
    EXPECT_EQ(stats.n_filesys_files_scanned, 1u);

    EXPECT_EQ(fresh_scan(), data_lines());
    EXPECT_EQ(ctx->cpg_result.success, 1) << c.content;
    EXPECT_EQ(read_file(digest_), good_digest());
  }
}

// Power fails at any byte of a digest cache file.
TEST_F(DigestFileTest, ATornOneNeverShortensTheListing) {
  const std::string whole = good_digest();
  size_t n_stale = 0;
  for (size_t size = 0; size < whole.size(); ++size) {
    write_file(digest_, whole.substr(0, size));
    const Lines lines = fresh_scan();
    const bool at_line_end = size > 0 && whole[size - 1] == '\n';
    EXPECT_EQ(ctx->cpg_result.success, at_line_end) << size << " " << reason();
    if (at_line_end) {
      EXPECT_EQ(lines, data_lines()) << size;
      EXPECT_EQ(logged(7), Lines(++n_stale, stale_message()));
      EXPECT_EQ(stats.n_digest_chunks_scanned + stats.n_digest_bytes_elided, 0);
    }
    EXPECT_EQ(fresh_scan(), data_lines()) << size;
  }
}

TEST_F(DigestFileTest, AChangedByteIsAFailureOrTakenAsItStands) {
  const std::string whole = good_digest();
  for (size_t i = 0; i < whole.size(); ++i) {
    for (const char mask : {'\x01', '\x10', whole[i]}) {
      std::string changed = whole;
      changed[i] = static_cast<char>(changed[i] ^ mask);
      write_file(digest_, changed);
      const size_t lines = fresh_scan().size();
      if (ctx->cpg_result.success) {
        EXPECT_EQ(lines, 4u) << i;
      } else {
        EXPECT_EQ(fresh_scan(), data_lines()) << i;
      }
    }
  }
}

TEST_F(DigestFileTest, WhatIsNoFileIsNotFollowedNorWaitedFor) {
  write_file("/run/outside", "untouched");
  const auto expect_unused = [&](const std::string& failure, const std::string& create_error) {
    EXPECT_EQ(fresh_scan(), data_lines());
    EXPECT_EQ(reason(), failure.substr(0, 115));
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
  EXPECT_FALSE(exists("/run/nowhere"));
  unlink("/run/outside");

  // A name that has no room for the prefix.
  const std::string name(243, 'n');
  make_file(0, name, "abc");
  EXPECT_EQ(fresh_scan().size(), 5u);
  EXPECT_TRUE(has_logged("Could not determine status of digest file (File name too long): " +
                         tree_path(0, ".$SyncDigest$" + name)));
  EXPECT_EQ(ctx->cpg_result.canceled, 1);
}

TEST_F(DigestFileTest, OrphansAreDeleted) {
  fresh_scan();
  unlink(data_.c_str());
  EXPECT_EQ(fresh_scan(), Lines());
  EXPECT_EQ(logged(-1), Lines({"Found orphaned digest file '" + digest_ + "'; Deleting it."}));
  EXPECT_FALSE(exists(digest_));

  // Anything by the data file's name keeps it; so does the bare prefix, whose data file would be
  // the directory.
  mkdir(data_.c_str(), 0755);
  make_file(0, "d/.$SyncDigest$data", "x");
  make_file(0, "d/.$SyncDigest$", "x");
  EXPECT_EQ(fresh_scan(), Lines());
  EXPECT_TRUE(exists(digest_));
  EXPECT_TRUE(exists(tree_path(0, "d/.$SyncDigest$")));
  EXPECT_EQ(logged(-1).size(), 1u);

  rmdir(data_.c_str());
  ASSERT_EQ(symlink("data", data_.c_str()), 0);
  fresh_scan();
  EXPECT_EQ(reason(),
            "Could not determine status of target file (Too many levels of symbolic links): " +
                data_.substr(0, 36));
  EXPECT_TRUE(exists(digest_));
  EXPECT_EQ(g_flight_recorder.paused, 1);

  unlink(data_.c_str());
  ASSERT_EQ(mount(digest_.c_str(), digest_.c_str(), nullptr, MS_BIND, nullptr), 0);
  fresh_scan();
  EXPECT_TRUE(
      has_logged("Could not delete orphaned digest file (Device or resource busy): " + digest_));
  EXPECT_EQ(ctx->cpg_result.canceled, 1);
  EXPECT_EQ(g_flight_recorder.paused, 0) << "an expected error";
  EXPECT_EQ(umount(digest_.c_str()), 0);
}

TEST_F(DigestFileTest, AFailedWriteRemovesIt) {
  // A file system of one page beside its directory, and a data file that takes no page.
  const std::string dir = tree_path(0, "d");
  ASSERT_EQ(mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=4k"), 0);
  write_file(tree_path(0, "d/filler"), "x");
  write_file(data_, "");
  ASSERT_EQ(truncate(data_.c_str(), 70000), 0);
  const size_t chunks = fresh_scan().size();
  EXPECT_EQ(chunks, 3u) << "hashed all the same";
  EXPECT_FALSE(exists(digest_));
  EXPECT_EQ(logged(-1),
            Lines({"r = -1; errno=28", "Error occurred updating digest file '" + digest_ +
                                           "'; removing it: No space left on device"}));
  EXPECT_EQ(logged(3).size(), 2u);
  EXPECT_EQ(ctx->cpg_result.success, 1);
  EXPECT_EQ(stats.n_digest_files_created, 1u);
  EXPECT_EQ(g_flight_recorder.count, 0u) << "for the platform log alone";
  EXPECT_EQ(umount(dir.c_str()), 0);
}

TEST_F(DigestFileTest, ABadOneThatStaysEndsTheExchange) {
  // Nothing can be written to /dev/full, and a mount point cannot be removed.
  write_file(digest_, "");
  ASSERT_EQ(mount("/dev/full", digest_.c_str(), nullptr, MS_BIND, nullptr), 0);
  ctx->cur_state = ST_UPDATE;
  fresh_scan();
  EXPECT_EQ(umount(digest_.c_str()), 0);
  EXPECT_TRUE(has_logged("Error occurred updating digest file '" + digest_ +
                         "'; removing it: No space left on device"));
  EXPECT_TRUE(has_logged("Error occurred removing bad digest file '" + digest_ +
                         "': Device or resource busy"));
  const std::string text = "Corrupt digest file '" + digest_ + "' can't be removed.";
  EXPECT_TRUE(has_logged("Sync Error: " + text));
  EXPECT_EQ(reason(), text);
  EXPECT_EQ(ctx->cpg_result.local_ok, 0) << "code 18";
  EXPECT_EQ(ctx->cur_state, ST_DONE);
  ASSERT_EQ(g_cpg.sent.size(), 1u);
  EXPECT_EQ(g_cpg.sent[0].header.command, MSG_LOCK_REL);
}

TEST_F(DigestFileTest, NoneIsLeftForADataFileThatCouldNotBeRead) {
  strcpy(g_diag_params.fail_scan_path, data_.c_str());
  EXPECT_EQ(fresh_scan(), Lines());
  EXPECT_FALSE(exists(digest_)) << "not started before the data file is open";
  g_diag_params.fail_scan_path[0] = '\0';

  write_file(digest_, "Digest-V1 1 1\n");
  EXPECT_EXIT(
      {
        if (!fail_system_call(SYS_read, kChunkSize, EIO)) _exit(2);
        scan_lines(ctx);
        _exit(ctx->cpg_result.canceled && !exists(digest_) ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
