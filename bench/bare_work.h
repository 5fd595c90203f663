#ifndef BENCH_BARE_WORK_H_
#define BENCH_BARE_WORK_H_

#include <stddef.h>
#include <stdint.h>

// The minimum of file work for replication, in the simplest code that leaves the same files, as
// durable as the daemon's. No lists, no log, no checks of the peer's data; one thread. A failure
// ends the process. Every path is absolute.

// Lists the four trees: stat, read and SHA-1 of every file of one chunk. For a larger file it reads
// the digest cache file, or writes it if it is missing.
void scan_trees();

// Reads `size` bytes of a file.
void read_part(const char* path, uint32_t offset, void* data, size_t size);

// Replaces a file as a whole. This and write_part create missing directories.
void write_whole(const char* path, const void* data, size_t size);

// Writes bytes in place to a file and sets its length to `file_size`.
void write_part(const char* path, uint32_t file_size, uint32_t offset, const void* data,
                size_t size);

// Moves a prepared file onto `target`.
void publish(const char* source, const char* target);

// Reports the outcome of an exchange to the event service.
void report_outcome();

#endif  // BENCH_BARE_WORK_H_
