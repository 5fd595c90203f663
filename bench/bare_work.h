#ifndef BENCH_BARE_WORK_H_
#define BENCH_BARE_WORK_H_

#include <stddef.h>
#include <stdint.h>

// The least work on files that replication is made of, in the plainest code that leaves the same
// files, as durable as the daemon's: no list, no log, no check of what a peer might send. One
// thread. What fails ends the process. Every path is absolute.

// Lists the four trees: status, read and SHA-1 of every file of one chunk, and of a larger one the
// digest cache file, which is written first where there is none.
void scan_trees();

// Reads `size` bytes of a file.
void read_part(const char* path, uint32_t offset, void* data, size_t size);

// Replaces a file as a whole. Missing directories are made, here and in write_part.
void write_whole(const char* path, const void* data, size_t size);

// Writes bytes in place in a file that gets the length `file_size`.
void write_part(const char* path, uint32_t file_size, uint32_t offset, const void* data,
                size_t size);

// Moves a prepared file onto `target`.
void publish(const char* source, const char* target);

// Tells the event service how an exchange ended.
void report_outcome();

#endif  // BENCH_BARE_WORK_H_
