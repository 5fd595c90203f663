#ifndef CATALOG_KEPT_SET_H_
#define CATALOG_KEPT_SET_H_

#include <stdint.h>
#include <time.h>

#include <string>

// Names in the directory of files that exchanges have deleted or replaced in the persistent trees
// of this EM. The directory is not replicated and only root can access it (0700). It has a
// directory for each exchange, tree and kind, NUMBER.TIME.TREE.KIND, for example
// 00000012.20261126T110603Z.active.deleted. There the files have their paths relative to the tree.
// NUMBER counts up, so that the order does not depend on the clock; TIME is UTC; TREE is a name of
// kept_trees.
constexpr char kKeptDirectory[] = "/mnt/part.persistent/replaced";

constexpr uint32_t kKeptTrees = 3;  // roots 0 to 2; the volatile tree is not kept
extern const char* const kept_trees[kKeptTrees];

enum KeptKind : uint32_t { kDeleted = 0, kReplaced = 1 };
constexpr uint32_t kKeptKinds = 2;
extern const char* const kept_kinds[kKeptKinds];

struct KeptSet {
  uint32_t number;
  time_t time;
  uint32_t root_index;
  KeptKind kind;
};

std::string kept_set_name(const KeptSet& set);

// Parses the name of a set. False for any other name.
bool parse_kept_set_name(const char* name, KeptSet* set);

#endif  // CATALOG_KEPT_SET_H_
