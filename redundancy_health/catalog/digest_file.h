#ifndef CATALOG_DIGEST_FILE_H_
#define CATALOG_DIGEST_FILE_H_

#include <stdio.h>
#include <sys/stat.h>

#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/catalog/pinned_path.h"

// Digest cache files: beside every data file above kChunkSize bytes the scan leaves a text file
// with its size, its modification second and one line per chunk, which stands in for the data file
// as long as size and second are the same. Everything here runs on sync_thread.

// The path of the digest cache file of `path` (a bare name gives a bare name), or null when the
// last component already is one. The caller frees it.
extern "C" __attribute__((visibility("default"))) char* compute_digest_path(const char* path);

// Removes the digest cache file of a data file that is about to change, or has changed; a failure
// other than ENOENT is only logged, with what `path` gives. True when it has removed one.
bool remove_digest_file(const PinnedPath& file, const char* path);

// A regular file that the scan has met.
struct ScannedFile {
  int dir_fd;              // its directory, for calls that need not walk the path again
  const char* name;        // its last component
  const FileEntry* entry;  // holds its path and root
  struct stat status;      // just taken
  char tag;                // of its listing lines
  bool near_digests;       // its directory holds digest cache files
};

// What the scan is to do with a regular file.
enum class DigestLookup {
  kIsDigestFile,  // nothing: the file is itself a digest cache file (orphans are deleted)
  kLoaded,        // nothing: its chunks were taken from its digest cache file
  kHashData,      // read and hash it
};

// Looks for the digest cache file of `file` and, when it can be trusted, pushes its chunks at the
// head of `list`. Failures are recorded in cpg_result.
DigestLookup check_digest_file(SyncContext* ctx, FileEntry** list, const ScannedFile& file);

// Writes the digest cache file of one data file while it is hashed.
struct DigestWriter {
  char* path;  // owned; null: no digest cache file for this data file
  FILE* file;  // null: it could not be created
  int error;   // errno of the first failure, 0 = none; the scan sets it when the data file fails
};

// Creates the file and writes its header when the data file, open as `data_fd`, is above kChunkSize
// bytes. Finish must follow.
DigestWriter start_digest_file(const ScannedFile& data, int data_fd);
void append_digest_line(DigestWriter* writer, const FileEntry* chunk);
// Closes the file, and removes it after a failure; when even that fails, ends the exchange.
void finish_digest_file(SyncContext* ctx, const ScannedFile& data, DigestWriter* writer);

#endif  // CATALOG_DIGEST_FILE_H_
