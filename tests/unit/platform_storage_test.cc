#include "platform/storage.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mount.h>

#include "platform_support.h"

namespace {

std::string bytes_of(const RpcResult& result) {
  return {reinterpret_cast<const char*>(&result), sizeof result};
}

TEST(SetResult, EveryByteFollowsFromTheCode) {
  const struct {
    uint32_t code;
    uint8_t success, local_ok, remote_ok, benign, canceled;
  } cases[] = {{0, 1, 1, 1, 0, 0},  {2, 0, 0, 0, 0, 1},  {4, 0, 1, 0, 0, 1},  {18, 0, 0, 0, 0, 1},
               {20, 0, 1, 0, 0, 1}, {34, 0, 0, 0, 0, 1}, {42, 0, 0, 0, 1, 1}, {44, 0, 0, 0, 1, 1}};
  for (const auto& c : cases) {
    std::string expected(128, '\0');
    expected[0] = static_cast<char>(c.success);
    expected[1] = static_cast<char>(c.local_ok);
    expected[2] = static_cast<char>(c.remote_ok);
    expected[3] = static_cast<char>(c.benign);
    expected[4] = static_cast<char>(c.canceled);
    expected[8] = 'N';
    if (c.code != 0) expected.replace(12, 8, "why (17)");
    RpcResult result;
    memset(&result, 0xA5, sizeof result);
    errno = EDOM;
    storage_cfg_set_result(&result, c.code, "why (%d)", 17);
    EXPECT_EQ(bytes_of(result), expected) << c.code;
    EXPECT_EQ(errno, EDOM);
  }
}

TEST(SetResult, ReasonIsCutAndTerminated) {
  for (const size_t length : {114u, 115u, 116u, 5000u}) {
    RpcResult result;
    memset(&result, 0xA5, sizeof result);
    storage_cfg_set_result(&result, 4, "%s", std::string(length, 'r').c_str());
    std::string reason(std::min(length, size_t{115}), 'r');
    reason.resize(116, '\0');
    EXPECT_EQ(std::string(result.reason, sizeof result.reason), reason) << length;
  }
}

TEST(SetResult, ReasonMayQuoteTheOldRecordOrBeMissing) {
  RpcResult result;
  storage_cfg_set_result(&result, 4, "first");
  storage_cfg_set_result(&result, 4, "then: %s", result.reason);
  EXPECT_STREQ(result.reason, "then: first");
  storage_cfg_set_result(&result, 4, nullptr);
  EXPECT_EQ(std::string(result.reason, sizeof result.reason), std::string(116, '\0'));
}

class StorageTest : public testing::Test {
 protected:
  void SetUp() override {
    mkdir("/mnt/full", 0755);
    // Room for a few pages only.
    ASSERT_EQ(mount("tmpfs", "/mnt/full", "tmpfs", 0, "size=64k"), 0);
  }

  void TearDown() override {
    umount("/mnt/full");
  }
};

TEST_F(StorageTest, ReplacesTheWholeFileWithAFixedMode) {
  for (const mode_t mask : {0000u, 0022u, 0777u}) {
    for (const int restricted : {0, kStorageOpenRestricted}) {
      write_file("/mnt/full/file", "old content, longer than the new one", 0666);
      umask(mask);
      StorageHandle* handle = nullptr;
      ASSERT_EQ(storage_open(7, "/mnt/full/file", kStorageOpenWrite | restricted, &handle), 0);
      umask(0022);
      EXPECT_EQ(storage_write_all(handle, "new ", 4), 0);
      EXPECT_EQ(storage_write_all(handle, "text", 4), 0);
      EXPECT_EQ(read_file("/mnt/full/file").substr(0, 3), "old");
      const std::set<std::string> names = names_in("/mnt/full");
      ASSERT_EQ(names.size(), 2u);
      EXPECT_EQ(names.begin()->substr(0, 11), "TempUpdate_");
      EXPECT_EQ(mode_of("/mnt/full/" + *names.begin()), restricted ? 0600 : 0644);
      EXPECT_EQ(storage_close(handle), 0);
      EXPECT_EQ(read_file("/mnt/full/file"), "new text");
      EXPECT_EQ(mode_of("/mnt/full/file"), restricted ? 0600 : 0644);
      EXPECT_EQ(names_in("/mnt/full"), std::set<std::string>{"file"});
    }
  }
}

TEST_F(StorageTest, LinkIsReplacedNotFollowed) {
  write_file("/mnt/outside_file", "outside");
  ASSERT_EQ(symlink("/mnt/outside_file", "/mnt/full/link"), 0);
  StorageHandle* handle = nullptr;
  ASSERT_EQ(storage_open(7, "/mnt/full/link", kStorageOpenWrite, &handle), 0);
  EXPECT_EQ(storage_close(handle), 0);
  EXPECT_EQ(read_file("/mnt/outside_file"), "outside");
  EXPECT_EQ(mode_of("/mnt/full/link"), 0644);
}

TEST_F(StorageTest, OpenRefusesWhatCannotBeReplaced) {
  const struct {
    const char* path;
    int flags;
    int error;
  } cases[] = {{"/mnt/missing/file", kStorageOpenWrite, ENOENT},
               {"relative/file", kStorageOpenWrite, EINVAL},
               {"", kStorageOpenWrite, EINVAL},
               {"/mnt/full/", kStorageOpenWrite, EINVAL},
               {"/mnt/full/file", kStorageOpenRestricted, EINVAL}};
  for (const auto& c : cases) {
    StorageHandle* handle = nullptr;
    errno = 0;
    EXPECT_NE(storage_open(7, c.path, c.flags, &handle), 0) << c.path;
    EXPECT_EQ(errno, c.error) << c.path;
  }
  EXPECT_TRUE(names_in("/mnt/full").empty());
}

TEST_F(StorageTest, FullDiskLeavesTheOldFile) {
  write_file("/mnt/full/file", "old");
  const std::string large(1 << 20, 'x');
  StorageHandle* handle = nullptr;
  ASSERT_EQ(storage_open(7, "/mnt/full/file", kStorageOpenWrite, &handle), 0);
  EXPECT_NE(storage_write_all(handle, large.data(), large.size()), 0);
  EXPECT_EQ(errno, ENOSPC);
  errno = 0;
  EXPECT_NE(storage_write_all(handle, "x", 1), 0);
  EXPECT_EQ(errno, ENOSPC);
  errno = 0;
  EXPECT_NE(storage_close(handle), 0);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(read_file("/mnt/full/file"), "old");
  EXPECT_EQ(names_in("/mnt/full"), std::set<std::string>{"file"});
}

TEST_F(StorageTest, FailedRenameLeavesNoTemporary) {
  ASSERT_EQ(mkdir("/mnt/full/directory", 0755), 0);
  StorageHandle* handle = nullptr;
  ASSERT_EQ(storage_open(7, "/mnt/full/directory", kStorageOpenWrite, &handle), 0);
  EXPECT_NE(storage_close(handle), 0);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(names_in("/mnt/full"), std::set<std::string>{"directory"});
}

}  // namespace
