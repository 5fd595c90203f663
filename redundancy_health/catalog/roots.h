#ifndef CATALOG_ROOTS_H_
#define CATALOG_ROOTS_H_

#include <stdint.h>

// The replicated trees, and the names that are never replicated.

// The roots, indexed by root_index. Every path ends in "/".
constexpr uint32_t kActivePersistentRoot = 0;  // written on the active EM
constexpr uint32_t kThisEmRoot = 1;            // this EM's own tree
constexpr uint32_t kOtherEmRoot = 2;           // the copy of the peer's own tree
constexpr uint32_t kActiveVolatileRoot = 3;    // written on the active EM
constexpr uint32_t kRootCount = 4;
extern const char* const root_paths[kRootCount];

constexpr int kMaxScanDepth = 16;                  // of directories; a root has depth 0
constexpr char kTempPrefix[] = "TempUpdate_";      // of files under construction
constexpr char kDigestPrefix[] = ".$SyncDigest$";  // of digest cache files

// True for a tree that is written on the active EM.
bool is_shared_root(uint32_t root_index);

// The index on the other EM of the tree that is `root_index` here, and vice versa: the other EM's
// own tree is the copy on this EM.
uint32_t peer_root_index(uint32_t root_index);

// The requester's root for the tag letter of a listing line; kRootCount for an unknown letter. 'P',
// the responder's own tree, is the requester's copy; 'Q' is the reverse.
uint32_t tag_root_index(char tag);

// The root that an absolute path begins with, or kRootCount. Compares text only.
uint32_t root_of_path(const char* path);

// True if a name (without directories) is that of a digest cache file.
bool is_digest_name(const char* name);

#endif  // CATALOG_ROOTS_H_
