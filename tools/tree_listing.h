#ifndef TOOLS_TREE_LISTING_H_
#define TOOLS_TREE_LISTING_H_

#include <stdint.h>

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
  std::vector<std::string> lines;  // one a chunk, of the daemon's form, by path
  std::string digest;              // SHA-1 of all lines, each with its NUL
};

// Reads the four trees of the EM with the number `em`. Only reads: unlike the daemon's scan it
// neither trusts, writes nor deletes digest cache files, so every byte of every file is looked at
// and the daemon's own caches stay what they are. What cannot be read is told in `failures`; a file
// that disappears meanwhile is no failure.
std::vector<TreeListing> list_trees(unsigned em, std::vector<std::string>* failures);

#endif  // TOOLS_TREE_LISTING_H_
