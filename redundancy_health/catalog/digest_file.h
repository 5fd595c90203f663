#ifndef CATALOG_DIGEST_FILE_H_
#define CATALOG_DIGEST_FILE_H_

#include <stdio.h>
#include <sys/stat.h>

#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/catalog/pinned_path.h"

// Digest cache files. Next to every data file above kChunkSize bytes, the scan writes a text file
// with its size, its modification second and one line per chunk. As long as size and second match,
// a scan uses it instead of reading the data file. Everything here runs on sync_thread.

// The path of the digest cache file of `path` (a bare name gives a bare name). Null if the last
// component already names one. The caller frees it.
extern "C" __attribute__((visibility("default"))) char* compute_digest_path(const char* path);

// Removes the digest cache file of a data file that is about to change or has changed. Returns true
// if it removed one, else sets errno: ENOENT where there was none. Other failures are logged, with
// `path`.
bool remove_digest_file(const PinnedPath& file, const char* path);

// A regular file found by the scan.
struct ScannedFile {
  int dir_fd;              // its directory; saves resolving the path again
  const char* name;        // its last component
  const FileEntry* entry;  // holds the path and the root
  struct stat status;      // just taken
  char tag;                // of its listing lines, see roots.h
  bool near_digests;       // its directory has digest cache files
};

// What the scan has to do with a regular file.
enum class DigestLookup {
  kIsDigestFile,  // nothing: it is a digest cache file (an orphan is deleted)
  kLoaded,        // nothing: its chunks were taken from its digest cache file
  kHashData,      // read and hash it
};

// Looks for the digest cache file of `file`. If it is valid, pushes its chunks at the head of
// `list`. Failures are recorded in cpg_result.
DigestLookup check_digest_file(SyncContext* ctx, FileEntry** list, const ScannedFile& file);

// Writes the digest cache file of a data file while that is hashed.
struct DigestWriter {
  char* path;  // owned; null: this data file gets no digest cache file
  FILE* file;  // null: could not be created
  int error;   // errno of the first failure, 0 = none; set by the scan if it cannot read the data
               // file
};

// Creates the file and writes its header if the data file, open as `data_fd`, is above kChunkSize
// bytes. Call finish_digest_file afterwards.
DigestWriter start_digest_file(const ScannedFile& data, int data_fd);
void append_digest_line(DigestWriter* writer, const FileEntry* chunk);
// Closes the file. After a failure, removes it; if that fails, ends the exchange.
void finish_digest_file(SyncContext* ctx, const ScannedFile& data, DigestWriter* writer);

#endif  // CATALOG_DIGEST_FILE_H_
