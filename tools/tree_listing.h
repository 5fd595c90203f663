#ifndef TOOLS_TREE_LISTING_H_
#define TOOLS_TREE_LISTING_H_

#include <stdint.h>
#include <time.h>

#include <set>
#include <string>
#include <vector>

// One replicated tree on this EM. Both EMs use the same name for the same tree: an own tree has the
// number of the EM that owns it.
struct TreeListing {
  std::string name;  // "active", "volatile", "em1", "em2"
  uint32_t root_index = 0;
  char tag = '?';  // in its lines: 'A', 'V', '1', '2'
  uint64_t files = 0;
  uint64_t bytes = 0;
  std::vector<std::string> lines;  // one per chunk, ordered by path
  std::set<std::string> fresh;     // relative paths of files that changed recently
  std::string digest;              // SHA-256 of all lines, each with its NUL
};

// A line is "tag digest begin end permission path", as in the daemon's own listing, but with
// SHA-256 and a fixed width before the path.
constexpr size_t kListPermissionColumn = 85;
constexpr size_t kListPathColumn = 87;

// Reads the four trees of the EM with the number `em`. A file is fresh if its content, mode or name
// changed at `since` (seconds since 1970) or later. Reads every byte: unlike the daemon's scan it
// neither trusts, writes nor deletes digest cache files. Errors are added to `failures`. A file
// that disappears meanwhile is not an error.
std::vector<TreeListing> list_trees(unsigned em, time_t since, std::vector<std::string>* failures);

#endif  // TOOLS_TREE_LISTING_H_
