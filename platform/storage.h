#ifndef PLATFORM_STORAGE_H_
#define PLATFORM_STORAGE_H_

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

// A result as it travels: answer to a local caller and part of every group message.
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

// Bits of the code from which a record is made.
constexpr uint32_t kCodeInExchange = 0x04 | 0x10;  // either bit: found while an exchange runs
constexpr uint32_t kCodeNoExchange = 0x20;         // found with no exchange running
constexpr uint32_t kCodeBenign = 0x08;

// Fills all 128 bytes of `*result`. Code 0 makes a success: success, local_ok and remote_ok are 1.
// Any other code makes a failure: success and remote_ok are 0, canceled is 1, local_ok is 1 for a
// failure inside an exchange, which begins after the local part was done (kCodeInExchange without
// kCodeNoExchange), benign is 1 with kCodeBenign, and `reason` is the formatted text cut to 115
// bytes. peer_present is 'N'. `format` may be null. Leaves errno as it was.
void storage_cfg_set_result(RpcResult* result, uint32_t code, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void storage_cfg_set_result_v(RpcResult* result, uint32_t code, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

struct StorageHandle;

constexpr int kStorageOpenWrite = 0x02;
// Mode 0600 instead of 0644; the umask of the process must leave both alone.
constexpr int kStorageOpenRestricted = 0x40;

// Replaces the file at the absolute `path` as a whole: storage_open makes a temporary file
// (TempUpdate_<random>) in its directory, storage_write_all writes to it, storage_close brings it
// to the disk, renames it over `path` and brings that to the disk. Each returns 0, or non-zero with
// errno set. After a failure `path` is what it was, unless only the new name did not reach the
// disk, and the temporary file is gone, at the latest after storage_close, which must follow every
// successful open and frees the handle. `kind` is not interpreted.
int storage_open(int kind, const char* path, int flags, StorageHandle** handle);
int storage_write_all(StorageHandle* handle, const void* data, size_t size);
int storage_close(StorageHandle* handle);

// False when a rename from `source` to `destination` must fail with EXDEV: another file system, or
// another mount of the same one. True when that cannot be told.
bool storage_can_rename(const char* source, const char* destination);

// What the next two return for is on the disk afterwards and survives a loss of power. 0, or
// non-zero with errno set. On file systems in memory they cost next to nothing.

// The content of the file or, with all below it, of the directory `path`. What is neither, or does
// not exist, has none.
int storage_sync_content(const char* path);
// That the name `path`, of a file or a directory, was made, has been replaced or is gone.
int storage_sync_name(const char* path);

#endif  // PLATFORM_STORAGE_H_
