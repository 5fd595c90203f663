#ifndef CATALOG_FILE_ENTRY_H_
#define CATALOG_FILE_ENTRY_H_

#include <stddef.h>
#include <stdint.h>

#include "redundancy_health/frame/sync_context.h"

// The decision about an entry; also the type of an update message.
enum UpdateType : uint32_t {
  PULL_REQ = 0,  // fetch this chunk from the peer
  PULL_ACK = 1,
  PUSH_REQ = 2,  // send this chunk to the peer
  PUSH_ACK = 3,
  PUSH_DEL_REQ = 4,  // the peer deletes this file
  PUSH_DEL_ACK = 5,
  PUSH_NOP = 6,
};

// "PULL_REQ" to "PUSH_NOP"; "PUSH_PULL_???" for larger numbers.
const char* update_type_name(uint32_t update_type);

// One chunk of a replicated file: end_offs - begin_offs bytes, at most kChunkSize.
struct FileEntry {
  uint32_t root_index;
  uint8_t is_local;           // 0: made from a line of the peer's listing
  char* path;                 // absolute path on this EM; owned
  const char* relative_path;  // points into path, after the root
  char* xmit_line;            // the listing line, or null; owned
  char digest[41];            // SHA-1 in lower-case hexadecimal; empty in peer entries
  uint8_t matched;            // the other EM has an identical line
  uint32_t update_type;       // UpdateType
  uint8_t restricted;         // the mode lacks a bit of 0644, so copies get mode 0600
  uint32_t file_size;         // bytes of the whole file when scanned; 0 in peer entries
  uint32_t begin_offs;
  uint32_t end_offs;  // one past the last byte
  FileEntry* next;
};

// Makes a local entry for `dir_path`/`name`, or for the absolute path `name` if `dir_path` is null.
// Aborts unless the path is below the root `root_index`. The caller owns the entry.
FileEntry* new_file_entry(uint32_t root_index, const char* dir_path, const char* name);

// Writes "digest begin end" without a NUL, each offset as 8 hexadecimal digits. Returns the end; at
// most kChunkFieldsSize bytes are written.
char* put_chunk_fields(char* out, const FileEntry* chunk);
constexpr size_t kChunkFieldsSize = 40 + 9 + 9;

// Formats the listing line "tag digest begin end permission path" into entry->xmit_line, which must
// be null. Returns the length of the line.
int compute_xmit_line(FileEntry* entry, char tag);

// Frees an entry, which may be null.
void free_file_entry(FileEntry* entry);

// Frees all entries of a list and sets it to null.
void free_file_list(FileEntry** list);

// qsort(3) order of FileEntry pointers: by root, relative path and listing line; local before peer.
int compare_file_entries(const void* a, const void* b);

// True for a span of at most kChunkSize bytes whose end is not below its begin.
bool chunk_span_is_valid(uint32_t begin_offs, uint32_t end_offs);

// True when a mode lacks any of 0644 (rw-r--r--).
bool mode_is_restricted(uint32_t mode);

#endif  // CATALOG_FILE_ENTRY_H_
