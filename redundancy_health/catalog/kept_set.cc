#include "redundancy_health/catalog/kept_set.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include <iterator>

const char* const kept_trees[kKeptTrees] = {"active", "own", "copy"};
const char* const kept_kinds[kKeptKinds] = {"deleted", "replaced"};

namespace {

constexpr char kTimeFormat[] = "%Y%m%dT%H%M%SZ";

// The index of a word in a table, or the size of the table.
template <uint32_t size>
uint32_t find_word(const char* const (&table)[size], const std::string& word) {
  uint32_t index = 0;
  while (index < size && word != table[index])
    ++index;
  return index;
}

}  // namespace

std::string kept_set_name(const KeptSet& set) {
  struct tm parts = {};
  char time_text[40] = "";
  char name[100];
  gmtime_r(&set.time, &parts);
  strftime(time_text, sizeof time_text, kTimeFormat, &parts);
  snprintf(name, sizeof name, "%08" PRIu32 ".%s.%s.%s", set.number, time_text,
           kept_trees[set.root_index], kept_kinds[set.kind]);
  return name;
}

bool parse_kept_set_name(const char* name, KeptSet* set) {
  char time_text[20];
  char tree[10];
  char kind[10];
  int end = 0;
  if (sscanf(name, "%10" SCNu32 ".%19[0-9TZ].%9[a-z].%9[a-z]%n", &set->number, time_text, tree,
             kind, &end) != 4 ||
      name[end] != '\0') {
    return false;
  }
  struct tm parts = {};
  if (strptime(time_text, kTimeFormat, &parts) == nullptr) return false;
  set->time = timegm(&parts);
  set->root_index = find_word(kept_trees, tree);
  const uint32_t kind_index = find_word(kept_kinds, kind);
  set->kind = static_cast<KeptKind>(kind_index);
  return set->root_index < kKeptTrees && kind_index < kKeptKinds;
}
