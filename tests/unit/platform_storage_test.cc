#include "platform/storage.h"

#include "platform_support.h"

namespace {

TEST(SetResult, EveryByteFollowsFromCodeAndReason) {
  const std::pair<uint32_t, std::string> cases[] = {
      {0, {1, 1, 1, 0, 0}},  {2, {0, 0, 0, 0, 1}},  {4, {0, 1, 0, 0, 1}},  {18, {0, 0, 0, 0, 1}},
      {20, {0, 1, 0, 0, 1}}, {34, {0, 0, 0, 0, 1}}, {42, {0, 0, 0, 1, 1}}, {44, {0, 0, 0, 1, 1}}};
  for (const auto& [code, flags] : cases) {
    for (const size_t length : {8u, 115u, 116u, 5000u}) {
      std::string expected = flags + std::string(3, '\0') + 'N' + std::string(3, '\0');
      const std::string reason(length, 'r');
      if (code != 0) expected += reason.substr(0, 115);
      expected.resize(128, '\0');
      RpcResult result;
      memset(&result, 0xA5, sizeof result);
      errno = EDOM;
      storage_cfg_set_result(&result, code, "%s", reason.c_str());
      EXPECT_EQ(errno, EDOM);
      EXPECT_EQ(std::string(reinterpret_cast<const char*>(&result), sizeof result), expected)
          << code << " " << length;
    }
  }
  RpcResult result;
  storage_cfg_set_result(&result, 4, "first");
  storage_cfg_set_result(&result, 4, "then: %s", result.reason);
  EXPECT_STREQ(result.reason, "then: first");
}

TEST(Storage, ReplacesTheWholeFileWithAFixedMode) {
  const Mount disk("/mnt/disk");
  // A link at first: it is replaced, not followed.
  ASSERT_EQ(symlink("/mnt/linked_file", "/mnt/disk/file"), 0);
  for (const int mode : {0600, 0644}) {
    write_file("/mnt/disk/file", "old content, longer than the new one", 0666);
    const int flags = kStorageOpenWrite | (mode == 0600 ? kStorageOpenRestricted : 0);
    umask(0777);
    StorageHandle* handle = nullptr;
    ASSERT_EQ(storage_open(7, "/mnt/disk/file", flags, &handle), 0);
    umask(0022);
    EXPECT_EQ(storage_write_all(handle, "new ", 4), 0);
    EXPECT_EQ(storage_write_all(handle, "text", 4), 0);
    EXPECT_TRUE(read_file("/mnt/disk/file").starts_with("old"));
    const std::string temporary = *names_in("/mnt/disk").begin();
    EXPECT_TRUE(temporary.starts_with("TempUpdate_")) << temporary;
    EXPECT_EQ(mode_of("/mnt/disk/" + temporary), mode);
    EXPECT_EQ(storage_close(handle), 0);
    EXPECT_EQ(read_file("/mnt/disk/file"), "new text");
    EXPECT_EQ(mode_of("/mnt/disk/file"), mode);
    EXPECT_EQ(names_in("/mnt/disk"), std::set<std::string>{"file"});
  }
  EXPECT_TRUE(read_file("/mnt/linked_file").starts_with("old"));
}

TEST(Storage, FailureLeavesTheOldFileAndNoTemporary) {
  const Mount mount("/mnt/disk", "size=64k");
  write_file("/mnt/disk/file", "old");
  mkdir("/mnt/disk/directory", 0755);
  const std::string large(1 << 20, 'x');
  StorageHandle* handle = nullptr;
  for (const char* path : {"/mnt/missing/file", "relative/file", "", "/mnt/disk/"})
    EXPECT_NE(storage_open(7, path, kStorageOpenWrite, &handle), 0) << path;
  ASSERT_EQ(storage_open(7, "/mnt/disk/file", kStorageOpenWrite, &handle), 0);
  for (const size_t size : {large.size(), size_t{1}}) {
    errno = 0;
    EXPECT_NE(storage_write_all(handle, large.data(), size), 0);
    EXPECT_EQ(errno, ENOSPC);
  }
  EXPECT_NE(storage_close(handle), 0);
  EXPECT_EQ(read_file("/mnt/disk/file"), "old");
  ASSERT_EQ(storage_open(7, "/mnt/disk/directory", kStorageOpenWrite, &handle), 0);
  EXPECT_NE(storage_close(handle), 0);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(names_in("/mnt/disk"), (std::set<std::string>{"directory", "file"}));
}

}  // namespace
