#include "redundancy_health/catalog/file_entry.h"

#include <string.h>

#include <algorithm>
#include <array>

#include "redundancy_health/catalog/confined_path.h"
#include "tests/unit/daemon_support.h"

namespace {

TEST(FileEntry, JoinsDirectoryAndNameBelowARootOnly) {
  const std::string root = root_paths[2];
  const std::string directory = root.substr(0, root.size() - 1);
  for (const auto& [dir_path, name, relative_path] :
       std::vector<std::array<std::string, 3>>{{root, "a b.txt", "a b.txt"},
                                               {directory, "x", "x"},
                                               {root + "b//", "x", "b/x"},
                                               {"/", root.substr(1) + "x", "x"}}) {
    FileEntry* entry = new_file_entry(2, dir_path.c_str(), name.c_str());
    EXPECT_EQ(entry->path, root + relative_path);
    EXPECT_EQ(entry->relative_path, entry->path + root.size());
    free_file_entry(entry);
  }
  EXPECT_ABORT("EXCEPTION: root_path is NULL", new_file_entry(4, "/tmp", "x"));
  EXPECT_ABORT("EXCEPTION: 0 == r = 0", new_file_entry(2, nullptr, directory.c_str()));
}

TEST(FileEntry, ListingLinesSortByRootPathLineAndOrigin) {
  const struct {
    uint32_t root_index;
    uint32_t begin_offs;
    uint32_t end_offs;
    bool is_local;
    const char* line;
  } sorted[] = {
      {0, 0, 1, true, "A ff23456789abcdef0123456789abcdef01234567 00000000 00000001 G z"},
      {1, 0, 1, true, "Q ff23456789abcdef0123456789abcdef01234567 00000000 00000001 P  B\n"},
      // The digest's text comes before the offsets.
      {1, 65536, 65546, true, "Q 0123456789abcdef0123456789abcdef01234567 00010000 0001000a G a"},
      {1, 0, 65536, true, "Q ff23456789abcdef0123456789abcdef01234567 00000000 00010000 G a"},
      {1, 0, 65536, false, "Q ff23456789abcdef0123456789abcdef01234567 00000000 00010000 G a"},
      {1, 0, 65536, true, "Q ff23456789abcdef0123456789abcdef01234567 00000000 00010000 P a"},
      {1, 0, 1, true, "Q 0123456789abcdef0123456789abcdef01234567 00000000 00000001 G a/b"},
      {1, 0, 1, true, "Q 0123456789abcdef0123456789abcdef01234567 00000000 00000001 G ab"},
      // Bytes are unsigned.
      {1, 0xFFFEFFFF, 0xFFFFFFFF, true,
       "Q 0123456789abcdef0123456789abcdef01234567 fffeffff ffffffff G \xc3\xa4"},
      {3, 0, 0, true, "V 0123456789abcdef0123456789abcdef01234567 00000000 00000000 G a"},
  };
  std::vector<FileEntry*> entries;
  for (const auto& c : sorted) {
    FileEntry* entry = new_file_entry(c.root_index, root_paths[c.root_index], c.line + 63);
    memcpy(entry->digest, c.line + 2, 40);
    entry->begin_offs = c.begin_offs;
    entry->end_offs = c.end_offs;
    entry->is_local = c.is_local;
    entry->restricted = c.line[61] == 'P';
    compute_xmit_line(entry, c.line[0]);
    EXPECT_STREQ(entry->xmit_line, c.line);
    entries.insert(entries.begin(), entry);
  }
  std::swap(entries[1], entries[6]);
  qsort(entries.data(), entries.size(), sizeof(FileEntry*), compare_file_entries);
  for (size_t i = 0; i < entries.size(); ++i) {
    EXPECT_STREQ(entries[i]->xmit_line, sorted[i].line) << i;
    EXPECT_EQ(entries[i]->is_local, sorted[i].is_local) << i;
    free_file_entry(entries[i]);
  }
}

TEST(ConfinedPath, KeepsPathsInsideTheirRoots) {
  const std::string root = root_paths[3];
  for (const char* path : {"a", "a//b", "..a", "a..", "...", "a/..b", "."}) {
    EXPECT_TRUE(relative_path_is_confined(path)) << path;
    EXPECT_EQ(root_of_path((root + path).c_str()), 3u) << path;
  }
  for (const char* path : {"..", "../x", "a/..", "a/../b", "a//../b"}) {
    EXPECT_FALSE(relative_path_is_confined(path)) << path;
    EXPECT_EQ(root_of_path((root + "/" + path).c_str()), kRootCount) << path;
  }
  EXPECT_FALSE(relative_path_is_confined("/etc/passwd"));
  EXPECT_EQ(root_of_path(root.c_str()), kRootCount);
  EXPECT_EQ(root_of_path((root.substr(1) + "x").c_str()), kRootCount);
}

}  // namespace
