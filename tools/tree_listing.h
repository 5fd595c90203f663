#ifndef TOOLS_TREE_LISTING_H_
#define TOOLS_TREE_LISTING_H_

#include <stdint.h>
#include <time.h>

#include <set>
#include <string>
#include <vector>

// One replicated tree as it is on this EM now, named so that both EMs give the same tree the same
// name: the own trees carry the number of the EM that owns them.
struct TreeListing {
  std::string name;  // "active", "volatile", "em1", "em2"
  uint32_t root_index = 0;
  char tag = '?';  // of its lines: 'A', 'V', '1', '2'
  uint64_t files = 0;
  uint64_t bytes = 0;
  std::vector<std::string> lines;  // one a chunk, by path
  std::set<std::string> fresh;     // relative paths of the files that changed not long ago
  std::string digest;              // SHA-256 of all lines, each with its NUL
};

// A line is "tag digest begin end permission path", as in the daemon's own listing, but with
// SHA-256 and fixed widths before the path.
constexpr size_t kListPermissionColumn = 85;
constexpr size_t kListPathColumn = 87;

// Reads the four trees of the EM with the number `em`. A file is fresh when its content, mode or
// name changed at `since` (seconds since 1970) or later. Only reads: unlike the daemon's scan it
// neither trusts, writes nor deletes digest cache files, so every byte of every file is looked at
// and the daemon's own caches stay what they are. What cannot be read is told in `failures`; a file
// that disappears meanwhile is no failure.
std::vector<TreeListing> list_trees(unsigned em, time_t since, std::vector<std::string>* failures);

#endif  // TOOLS_TREE_LISTING_H_
