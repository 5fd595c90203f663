#include "redundancy_health/catalog/file_entry.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/frame/check.h"

namespace {

char* put_hex8(char* out, uint32_t value) {
  for (int shift = 28; shift >= 0; shift -= 4)
    *out++ = "0123456789abcdef"[value >> shift & 15];
  return out;
}

}  // namespace

const char* update_type_name(uint32_t update_type) {
  static const char* const names[] = {"PULL_REQ",     "PULL_ACK",     "PUSH_REQ", "PUSH_ACK",
                                      "PUSH_DEL_REQ", "PUSH_DEL_ACK", "PUSH_NOP"};
  return update_type < sizeof(names) / sizeof(names[0]) ? names[update_type] : "PUSH_PULL_???";
}

FileEntry* new_file_entry(uint32_t root_index, const char* dir_path, const char* name) {
  auto* entry = static_cast<FileEntry*>(calloc(1, sizeof(FileEntry)));
  CHECK_NOT_NULL(entry);
  entry->root_index = root_index;
  entry->is_local = 1;
  entry->update_type = PUSH_NOP;

  const size_t name_length = strlen(name);
  if (dir_path == nullptr) {
    entry->path = strdup(name);
    CHECK_NOT_NULL(entry->path);
  } else {
    size_t dir_length = strlen(dir_path);
    while (dir_length > 0 && dir_path[dir_length - 1] == '/')
      --dir_length;
    entry->path = static_cast<char*>(malloc(dir_length + name_length + 2));
    CHECK_NOT_NULL(entry->path);
    memcpy(entry->path, dir_path, dir_length);  // NOLINT(bugprone-not-null-terminated-result)
    entry->path[dir_length] = '/';
    memcpy(entry->path + dir_length + 1, name, name_length + 1);
  }

  const char* root_path = root_index < kRootCount ? root_paths[root_index] : nullptr;
  CHECK_NOT_NULL(root_path);
  const size_t root_length = strlen(root_path);
  const int r = strncmp(entry->path, root_path, root_length);
  CHECK_TRUE(0 == r);  // log text: keep it unchanged
  entry->relative_path = entry->path + root_length;
  return entry;
}

char* put_chunk_fields(char* out, const FileEntry* chunk) {
  out = stpcpy(out, chunk->digest);
  *out++ = ' ';
  out = put_hex8(out, chunk->begin_offs);
  *out++ = ' ';
  return put_hex8(out, chunk->end_offs);
}

int compute_xmit_line(FileEntry* entry, char tag) {
  CHECK_TRUE(NULL == entry->xmit_line);  // log text: keep it unchanged
  // Formatted by hand, because this is most of the cost of scanning small files.
  constexpr size_t head_size = sizeof("T ") + kChunkFieldsSize + sizeof(" P ");
  entry->xmit_line = static_cast<char*>(malloc(head_size + strlen(entry->relative_path)));
  int r = -1;
  if (entry->xmit_line != nullptr) {
    char* p = entry->xmit_line;
    *p++ = tag;
    *p++ = ' ';
    p = put_chunk_fields(p, entry);
    *p++ = ' ';
    *p++ = entry->restricted ? 'P' : 'G';
    *p++ = ' ';
    p = stpcpy(p, entry->relative_path);
    r = static_cast<int>(p - entry->xmit_line);
  }
  CHECK_TRUE(r > 0);  // log text: keep it unchanged
  return r;
}

void free_file_entry(FileEntry* entry) {
  if (entry == nullptr) return;
  free(entry->xmit_line);
  free(entry->path);
  free(entry);
}

void free_file_list(FileEntry** list) {
  while (*list != nullptr) {
    FileEntry* entry = *list;
    *list = entry->next;
    free_file_entry(entry);
  }
}

int compare_file_entries(const void* a, const void* b) {
  const FileEntry* left = *static_cast<const FileEntry* const*>(a);
  const FileEntry* right = *static_cast<const FileEntry* const*>(b);
  int order = static_cast<int>(left->root_index) - static_cast<int>(right->root_index);
  if (order != 0) return order;
  order = strcmp(left->relative_path, right->relative_path);
  if (order != 0) return order;
  order = strcmp(left->xmit_line, right->xmit_line);
  if (order != 0) return order;
  if (left->is_local == right->is_local) return 0;
  return left->is_local ? -1 : 1;
}

bool chunk_span_is_valid(uint32_t begin_offs, uint32_t end_offs) {
  return begin_offs <= end_offs && end_offs - begin_offs <= kChunkSize;
}

bool mode_is_restricted(uint32_t mode) {
  return (mode & 0644) != 0644;
}
