#include "redundancy_health/catalog/roots.h"

#include <string.h>

const char* const root_paths[kRootCount] = {
    "/mnt/part.persistent/replicated_by_active_em/",
    "/mnt/part.persistent/replicated_by_this_em/",
    "/mnt/part.persistent/replicated_by_other_em/",
    "/var/run/replicated_by_active_em/",
};

bool is_shared_root(uint32_t root_index) {
  return root_index == kActivePersistentRoot || root_index == kActiveVolatileRoot;
}

uint32_t peer_root_index(uint32_t root_index) {
  switch (root_index) {
    case kThisEmRoot:
      return kOtherEmRoot;
    case kOtherEmRoot:
      return kThisEmRoot;
    default:
      return root_index;
  }
}

uint32_t tag_root_index(char tag) {
  switch (tag) {
    case 'A':
      return kActivePersistentRoot;
    case 'Q':
      return kThisEmRoot;
    case 'P':
      return kOtherEmRoot;
    case 'V':
      return kActiveVolatileRoot;
    default:
      return kRootCount;
  }
}

uint32_t root_of_path(const char* path) {
  uint32_t root_index = 0;
  while (root_index < kRootCount &&
         strncmp(path, root_paths[root_index], strlen(root_paths[root_index])) != 0)
    ++root_index;
  return root_index;
}

bool is_digest_name(const char* name) {
  return strncmp(name, kDigestPrefix, sizeof(kDigestPrefix) - 1) == 0;
}
