#ifndef PLATFORM_STORAGE_H_
#define PLATFORM_STORAGE_H_

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

// A result: the answer to a local caller, and part of every group message.
struct RpcResult {
  uint8_t success;
  uint8_t local_ok;
  uint8_t remote_ok;
  uint8_t benign;
  uint8_t canceled;
  uint8_t padding[3];
  uint32_t peer_present;  // the character 'Y' or 'N'
  char reason[116];       // NUL-terminated
};
static_assert(sizeof(RpcResult) == 128);
static_assert(offsetof(RpcResult, success) == 0 && offsetof(RpcResult, local_ok) == 1);
static_assert(offsetof(RpcResult, remote_ok) == 2 && offsetof(RpcResult, benign) == 3);
static_assert(offsetof(RpcResult, canceled) == 4 && offsetof(RpcResult, peer_present) == 8);
static_assert(offsetof(RpcResult, reason) == 12);

// Bits of the code that makes a record.
constexpr uint32_t kCodeInExchange = 0x04 | 0x10;  // either bit: failed within an exchange
constexpr uint32_t kCodeNoExchange = 0x20;         // failed without an exchange
constexpr uint32_t kCodeBenign = 0x08;

// Fills all 128 bytes of `*result`. Code 0 makes a success: success, local_ok and remote_ok are 1.
// Any other code makes a failure: success and remote_ok are 0 and canceled is 1. local_ok is 1 if
// the failure is within an exchange, because the local part is done before (kCodeInExchange without
// kCodeNoExchange). benign is 1 with kCodeBenign. `reason` is the formatted text, cut to 115 bytes;
// `format` may be null. peer_present is 'N'. errno is unchanged.
void storage_cfg_set_result(RpcResult* result, uint32_t code, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void storage_cfg_set_result_v(RpcResult* result, uint32_t code, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

struct StorageHandle;

constexpr int kStorageOpenWrite = 0x02;
// Result of storage_close if the file was replaced, but its name may not be on the disk.
constexpr int kStorageReplaced = 1;
// Mode 0600 instead of 0644, whatever the umask and default ACL are.
constexpr int kStorageOpenRestricted = 0x40;

// Replaces the file `name` in an open directory as a whole. storage_open_at creates a temporary
// file (TempUpdate_<random>) in the directory, storage_write_all writes to it, storage_close syncs
// it, renames it over `name` and syncs the directory. Each returns 0, or non-zero with errno set.
// After a failure `name` is unchanged, except if only the sync of the directory failed. The
// temporary file is removed at storage_close at the latest. storage_close frees the handle; call it
// after every successful open. `kind` is ignored. `dir_fd` stays the caller's and must be open
// until then.
int storage_open_at(int kind, int dir_fd, const char* name, int flags, StorageHandle** handle);
// The same for an absolute path.
int storage_open(int kind, const char* path, int flags, StorageHandle** handle);
int storage_write_all(StorageHandle* handle, const void* data, size_t size);
int storage_close(StorageHandle* handle);
// Gives up the replacement. Call it instead of storage_close.
void storage_discard(StorageHandle* handle);

// Returns false if a rename between two open directories must fail with EXDEV, because they are on
// different file systems or mounts. Returns true if that is unknown.
bool storage_can_rename(int source_dir_fd, int destination_dir_fd);

// Syncs the file `name`, or the directory `name` with its contents, so that it survives a power
// failure. Does nothing for any other type or a missing name. Returns 0, or non-zero with errno
// set.
int storage_sync_content(int dir_fd, const char* name);

#endif  // PLATFORM_STORAGE_H_
