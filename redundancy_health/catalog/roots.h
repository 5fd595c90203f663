#ifndef CATALOG_ROOTS_H_
#define CATALOG_ROOTS_H_

#include <stdint.h>

// The replicated trees, and the names in them that are never replicated.

// The roots, indexed by root_index. Every path ends in "/".
constexpr uint32_t kActivePersistentRoot = 0;  // written by the active EM
constexpr uint32_t kThisEmRoot = 1;            // this EM's own tree
constexpr uint32_t kOtherEmRoot = 2;           // the copy of the peer's own tree
constexpr uint32_t kActiveVolatileRoot = 3;    // written by the active EM
constexpr uint32_t kRootCount = 4;
extern const char* const root_paths[kRootCount];

constexpr int kMaxScanDepth = 16;                  // of directories; a root has depth 0
constexpr char kTempPrefix[] = "TempUpdate_";      // of files under construction
constexpr char kDigestPrefix[] = ".$SyncDigest$";  // of digest cache files

// True for the trees that the active EM writes.
bool is_shared_root(uint32_t root_index);

// The other EM's index of the tree that is `root_index` here, and the other way round: its own tree
// is this EM's copy of it.
uint32_t peer_root_index(uint32_t root_index);

// The requester's root of a listing line's tag letter, or kRootCount for every other letter. The
// responder's own tree ('P') is the requester's copy, and the other way round ('Q').
uint32_t tag_root_index(char tag);

// The root that an absolute path begins with, as text, or kRootCount.
uint32_t root_of_path(const char* path);

// Whether a name (no path) is that of a digest cache file.
bool is_digest_name(const char* name);

#endif  // CATALOG_ROOTS_H_
