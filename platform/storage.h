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
// What storage_close returns when the file was replaced and only its name may not be on the disk.
constexpr int kStorageReplaced = 1;
// Mode 0600 instead of 0644, whatever umask and default ACL say.
constexpr int kStorageOpenRestricted = 0x40;

// Replaces the file `name` in an open directory as a whole: storage_open_at makes a temporary file
// (TempUpdate_<random>) beside it, storage_write_all writes to it, storage_close brings it to the
// disk, renames it over `name` and brings that to the disk. Each returns 0, or non-zero with errno
// set. After a failure `name` is what it was, unless only the new name did not reach the disk, and
// the temporary file is gone, at the latest after storage_close, which must follow every successful
// open and frees the handle. `kind` is not interpreted. `dir_fd` stays the caller's, open until
// then.
int storage_open_at(int kind, int dir_fd, const char* name, int flags, StorageHandle** handle);
// The same by an absolute path.
int storage_open(int kind, const char* path, int flags, StorageHandle** handle);
int storage_write_all(StorageHandle* handle, const void* data, size_t size);
int storage_close(StorageHandle* handle);
// Instead of storage_close: gives the replacement up.
void storage_discard(StorageHandle* handle);

// False when a rename from one open directory to another must fail with EXDEV: another file system,
// or another mount of the same one. True when that cannot be told.
bool storage_can_rename(int source_dir_fd, int destination_dir_fd);

// Brings the content of the file or, with all below it, of the directory `name` to the disk, so
// that it survives a loss of power. What is neither, or does not exist, has none. 0, or non-zero
// with errno set.
int storage_sync_content(int dir_fd, const char* name);

#endif  // PLATFORM_STORAGE_H_
