#include "redundancy_health/catalog/file_entry.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "redundancy_health/catalog/confined_path.h"
#include "tests/unit/daemon_support.h"

namespace {

const char kDigest[] = "0123456789abcdef0123456789abcdef01234567";

FileEntry* make_entry(uint32_t root_index, const char* name, char tag, const char* digest,
                      uint32_t begin_offs, uint32_t end_offs, bool restricted = false) {
  FileEntry* entry = new_file_entry(root_index, root_paths[root_index], name);
  strcpy(entry->digest, digest);
  entry->begin_offs = begin_offs;
  entry->end_offs = end_offs;
  entry->restricted = restricted;
  compute_xmit_line(entry, tag);
  return entry;
}

TEST(FileEntry, JoinsDirectoryAndName) {
  const struct {
    uint32_t root_index;
    const char* dir_path;
    const char* name;
    const char* path;
    const char* relative_path;
  } cases[] = {
      {0, "/mnt/part.persistent/replicated_by_active_em/", "a b.txt",
       "/mnt/part.persistent/replicated_by_active_em/a b.txt", "a b.txt"},
      {1, "/mnt/part.persistent/replicated_by_this_em", "x",
       "/mnt/part.persistent/replicated_by_this_em/x", "x"},
      {2, "/mnt/part.persistent/replicated_by_other_em/b//", "x",
       "/mnt/part.persistent/replicated_by_other_em/b/x", "b/x"},
      {3, "/var/run/replicated_by_active_em/", "", "/var/run/replicated_by_active_em/", ""},
      {3, "/", "var/run/replicated_by_active_em/x", "/var/run/replicated_by_active_em/x", "x"},
      {3, nullptr, "/var/run/replicated_by_active_em/d//z", "/var/run/replicated_by_active_em/d//z",
       "d//z"},
  };
  for (const auto& c : cases) {
    FileEntry* entry = new_file_entry(c.root_index, c.dir_path, c.name);
    EXPECT_STREQ(entry->path, c.path);
    EXPECT_STREQ(entry->relative_path, c.relative_path);
    EXPECT_EQ(entry->relative_path, entry->path + strlen(root_paths[c.root_index]));
    EXPECT_EQ(entry->root_index, c.root_index);
    EXPECT_EQ(entry->is_local, 1);
    EXPECT_EQ(entry->xmit_line, nullptr);
    EXPECT_STREQ(entry->digest, "");
    EXPECT_EQ(entry->matched, 0);
    EXPECT_EQ(entry->update_type, 6u);
    EXPECT_EQ(entry->restricted, 0);
    EXPECT_EQ(entry->file_size + entry->begin_offs + entry->end_offs, 0u);
    EXPECT_EQ(entry->next, nullptr);
    free_file_entry(entry);
  }
  free_file_entry(nullptr);
}

TEST(FileEntryDeathTest, WhatIsNotBelowItsRootAborts) {
  const char root[] = "/mnt/part.persistent/replicated_by_this_em";
  EXPECT_ABORT("EXCEPTION: root_path is NULL", new_file_entry(4, "/tmp", "x"));
  EXPECT_ABORT("EXCEPTION: root_path is NULL", new_file_entry(0xFFFFFFFF, nullptr, "/x"));
  EXPECT_ABORT("EXCEPTION: 0 == r = 0", new_file_entry(1, nullptr, root));
  EXPECT_ABORT("EXCEPTION: 0 == r = 0", new_file_entry(0, root, "x"));
  EXPECT_ABORT("EXCEPTION: 0 == r = 0", new_file_entry(1, "/", "x"));
  FileEntry* entry = make_entry(1, "x", 'Q', kDigest, 0, 1);
  EXPECT_ABORT("EXCEPTION: NULL == entry->xmit_line = 0", compute_xmit_line(entry, 'Q'));
  free_file_entry(entry);
}

TEST(FileEntry, ListingLine) {
  const struct {
    const char* name;
    char tag;
    uint32_t begin_offs;
    uint32_t end_offs;
    bool restricted;
    const char* line;
  } cases[] = {
      {"a b.txt", 'Q', 0, 0, false,
       "Q 0123456789abcdef0123456789abcdef01234567 00000000 00000000 G a b.txt"},
      {"d/e", 'A', 65536, 65546, true,
       "A 0123456789abcdef0123456789abcdef01234567 00010000 0001000a P d/e"},
      {" \xc3\xa4\n", 'V', 0xFFFEFFFF, 0xFFFFFFFF, false,
       "V 0123456789abcdef0123456789abcdef01234567 fffeffff ffffffff G  \xc3\xa4\n"},
  };
  for (const auto& c : cases) {
    FileEntry* entry =
        make_entry(1, c.name, c.tag, kDigest, c.begin_offs, c.end_offs, c.restricted);
    EXPECT_STREQ(entry->xmit_line, c.line);
    EXPECT_STREQ(entry->xmit_line + 63, c.name);
    free_file_entry(entry);
  }
}

TEST(FileEntry, SortsByRootPathLineAndOrigin) {
  const std::string low(40, '1');
  const std::string high(40, 'e');
  FileEntry* sorted[] = {
      make_entry(0, "z", 'A', high.c_str(), 0, 1),
      make_entry(1, "B", 'Q', high.c_str(), 0, 1),
      make_entry(1, "a", 'Q', low.c_str(), 65536, 65537),  // digest text before offset
      make_entry(1, "a", 'Q', high.c_str(), 0, 65536),
      make_entry(1, "a", 'Q', high.c_str(), 0, 65536),  // of the peer
      make_entry(1, "a", 'Q', high.c_str(), 0, 65536, true),
      make_entry(1, "a/b", 'Q', low.c_str(), 0, 1),
      make_entry(1, "ab", 'Q', low.c_str(), 0, 1),
      make_entry(1, "\xc3\xa4", 'Q', low.c_str(), 0, 1),  // bytes are unsigned
      make_entry(3, "a", 'V', low.c_str(), 0, 1),
  };
  sorted[4]->is_local = 0;
  std::vector<FileEntry*> shuffled(std::begin(sorted), std::end(sorted));
  std::reverse(shuffled.begin(), shuffled.end());
  std::swap(shuffled[1], shuffled[6]);
  qsort(shuffled.data(), shuffled.size(), sizeof(FileEntry*), compare_file_entries);
  for (size_t i = 0; i < shuffled.size(); ++i) {
    EXPECT_EQ(shuffled[i], sorted[i]) << i << ": " << shuffled[i]->xmit_line;
  }
  EXPECT_EQ(compare_file_entries(&sorted[3], &sorted[3]), 0);
  for (FileEntry* entry : sorted)
    free_file_entry(entry);
}

TEST(FileEntry, TagsAndTypeNames) {
  for (int tag = -128; tag < 128; ++tag) {
    const uint32_t expected = tag == 'A' ? 0 : tag == 'Q' ? 1 : tag == 'P' ? 2 : tag == 'V' ? 3 : 4;
    EXPECT_EQ(tag_root_index(static_cast<char>(tag)), expected) << tag;
  }
  EXPECT_STREQ(update_type_name(6), "PUSH_NOP");
  EXPECT_STREQ(update_type_name(7), "PUSH_PULL_???");
  EXPECT_STREQ(update_type_name(0xFFFFFFFF), "PUSH_PULL_???");
}

TEST(ConfinedPath, KeepsPathsInsideTheirRoots) {
  const struct {
    const char* path;
    bool confined;
  } cases[] = {
      {"", true},      {"a", true},       {"a/b", true}, {"..a", true},          {"a..", true},
      {"...", true},   {"a/..b", true},   {".", true},   {"..", false},          {"../x", false},
      {"a/..", false}, {"a/../b", false}, {"/", false},  {"/etc/passwd", false}, {"a//../b", false},
      {"a//b", true}};
  for (const auto& c : cases) {
    EXPECT_EQ(relative_path_is_confined(c.path), c.confined) << c.path;
    // Behind a root the first "/" says nothing, and nothing behind it is the root itself.
    const bool below = c.confined ? *c.path != '\0' : c.path[0] == '/' && c.path[1] != '\0';
    EXPECT_EQ(root_of_path(tree_path(3, c.path).c_str()), below ? 3u : 4u) << c.path;
  }
  EXPECT_EQ(root_of_path("/var/run/replicated_by_active_em"), kRootCount);
  EXPECT_EQ(root_of_path("/var/run/replicated_by_active_em//../x"), kRootCount);
  EXPECT_EQ(root_of_path("mnt/part.persistent/replicated_by_this_em/x"), kRootCount);
  EXPECT_EQ(root_of_path("/mnt/part.persistent/replicated_by_other_em/x"), kOtherEmRoot);
}

}  // namespace
