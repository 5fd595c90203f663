#ifndef CATALOG_FILE_ENTRY_H_
#define CATALOG_FILE_ENTRY_H_

#include <stddef.h>
#include <stdint.h>

#include "redundancy_health/frame/sync_context.h"

// What is to be done with an entry, and the type of an update message.
enum UpdateType : uint32_t {
  PULL_REQ = 0,  // fetch this chunk from the peer
  PULL_ACK = 1,
  PUSH_REQ = 2,  // send this chunk to the peer
  PUSH_ACK = 3,
  PUSH_DEL_REQ = 4,  // the peer is to delete this file
  PUSH_DEL_ACK = 5,
  PUSH_NOP = 6,
};

// "PULL_REQ" to "PUSH_NOP", "PUSH_PULL_???" above.
const char* update_type_name(uint32_t update_type);

// One chunk of one replicated file. The chunk is end_offs - begin_offs bytes, kChunkSize at most.
struct FileEntry {
  uint32_t root_index;
  uint8_t is_local;           // 0: made from a line of the peer's listing
  char* path;                 // absolute path on this EM; owned
  const char* relative_path;  // points into path, behind the root
  char* xmit_line;            // the listing line, or null; owned
  char digest[41];            // SHA-1 in lower-case hexadecimal; empty in peer entries
  uint8_t matched;            // the other EM has the identical line
  uint32_t update_type;       // UpdateType
  uint8_t restricted;         // the mode lacks a bit of 0644: copies are made with mode 0600
  uint32_t file_size;         // bytes of the whole file when scanned; 0 in peer entries
  uint32_t begin_offs;
  uint32_t end_offs;  // one past the last byte
  FileEntry* next;
};

// Makes a local entry for `dir_path`/`name`, or for the absolute path `name` when `dir_path` is
// null. The path must lie below the root `root_index`; anything else aborts. The caller owns it.
FileEntry* new_file_entry(uint32_t root_index, const char* dir_path, const char* name);

// Writes "digest begin end", the offsets as 8 hexadecimal digits each, without a NUL, and returns
// the end: at most kChunkFieldsSize bytes.
char* put_chunk_fields(char* out, const FileEntry* chunk);
constexpr size_t kChunkFieldsSize = 40 + 9 + 9;

// Formats the listing line "tag digest begin end permission path" into entry->xmit_line, which
// must be null. Returns the line's length.
int compute_xmit_line(FileEntry* entry, char tag);

// Frees an entry; null is fine.
void free_file_entry(FileEntry* entry);

// Frees every entry of a list and leaves it empty.
void free_file_list(FileEntry** list);

// qsort(3) order of FileEntry pointers: root, relative path, listing line, local before peer.
int compare_file_entries(const void* a, const void* b);

// True for a span of at most kChunkSize bytes whose end is not below its begin.
bool chunk_span_is_valid(uint32_t begin_offs, uint32_t end_offs);

// True when a mode lacks any of 0644 (rw-r--r--).
bool mode_is_restricted(uint32_t mode);

#endif  // CATALOG_FILE_ENTRY_H_
