#ifndef CATALOG_UNSYNCED_H_
#define CATALOG_UNSYNCED_H_

#include <stdint.h>

#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/frame/sync_context.h"

// Remembers what this EM has received and could not sync. The kernel reports a failed write-back
// once and may then mark the pages clean. So a second fsync proves nothing, and a listing made from
// the page cache would lead to a success for data that is on no disk. Memory is enough, because a
// restart of the system also empties the page cache. On sync_thread.

// Notes that the fsync of a chunk written to `path` failed. The whole file must be sent again.
void note_unsynced_file(const char* path);

// Notes that a chunk of the file was written and synced. When all chunks are, forgets the file.
void note_synced_chunk(const char* path, uint32_t begin_offs, uint32_t file_size);

// Forgets a file that was replaced as a whole or deleted.
void forget_unsynced_file(const char* path);

bool file_is_unsynced(const char* path);
bool any_file_is_unsynced();

// Gives the chunks that must be sent again a digest that matches nothing, so that they are. Only in
// copies: the copy of the peer's tree, and the shared trees while this EM is standby. The owner of
// a tree lists its files unchanged.
void mark_unsynced_chunks(FileEntry* list);

// fsync(2) of an open directory in which a name was created, replaced or removed for the peer. A
// failure is remembered.
int sync_received_name(int dir_fd);
// Remembers a directory whose fsync failed elsewhere. errno is unchanged.
void note_unsynced_directory(int dir_fd);

// Syncs the remembered directories again, before a listing is made. A failure is recorded as a scan
// failure and stays remembered.
void sync_directories_again(SyncContext* ctx);

// Forgets everything. At the end of sync_thread.
void forget_unsynced();

#endif  // CATALOG_UNSYNCED_H_
