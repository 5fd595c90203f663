#ifndef CATALOG_UNSYNCED_H_
#define CATALOG_UNSYNCED_H_

#include <stdint.h>

#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/frame/sync_context.h"

// What this EM has received and could not bring to the disk. A kernel reports a failed write-back
// once and may then show the pages as clean: a second fsync proves nothing, and a listing made from
// the cache would cover what is on no medium with a success. So it is remembered, in memory,
// because a restart of the system empties the cache as well. On sync_thread.

// A chunk was written into the file `path`, and its fsync failed: the file is to come again.
void note_unsynced_file(const char* path);

// A chunk of it was written and synced; when all have been, the file is forgotten.
void note_synced_chunk(const char* path, uint32_t begin_offs, uint32_t file_size);

// The file was replaced as a whole, or deleted.
void forget_unsynced_file(const char* path);

bool file_is_unsynced(const char* path);
bool any_file_is_unsynced();

// Gives the chunks that are to come again a digest that matches nothing, where the file is a copy:
// in the copy of the peer's tree, and in the shared trees while this EM is not the active one. The
// owner lists its files as they are.
void mark_unsynced_chunks(FileEntry* list);

// fsync(2) of an open directory in which a name was made, replaced or removed for the peer; a
// failure is remembered.
int sync_received_name(int dir_fd);
// The same for one that has failed elsewhere. Leaves errno as it was.
void note_unsynced_directory(int dir_fd);

// Before a listing is made: syncs those directories again. What fails is recorded as a failure of
// the scan, and stays noted.
void sync_directories_again(SyncContext* ctx);

// Forgets everything, at the end of the thread.
void forget_unsynced();

#endif  // CATALOG_UNSYNCED_H_
