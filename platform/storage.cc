#include "platform/storage.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "platform/descriptor.h"

// A replacement in progress. After a failure `error` is its errno and the temporary file is
// removed.
struct StorageHandle {
  int fd;
  int error;
  int dir_fd;
  std::string name;
  std::string temporary;     // in the same directory
  Descriptor own_directory;  // none if the directory is the caller's
};

namespace {

constexpr int kNameAttempts = 100;

int fail(int error) {
  errno = error;
  return -1;
}

// An unpredictable number, or 0 with errno. Fetches several with one system call.
uint64_t next_random() {
  constexpr size_t kNumbers = 32;
  static thread_local uint64_t numbers[kNumbers];
  static thread_local size_t left = 0;
  if (left == 0) {
    errno = EIO;  // for a short answer
    if (getrandom(numbers, sizeof numbers, 0) != static_cast<ssize_t>(sizeof numbers)) return 0;
    left = kNumbers;
  }
  return numbers[--left] | 1;
}

// Creates a file with a new name in a directory. Returns the descriptor and sets `*name`, or
// returns -1 with errno set.
int create_temporary(int dir_fd, mode_t mode, std::string* name) {
  for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
    const uint64_t number = next_random();
    if (number == 0) return -1;
    char text[40];
    snprintf(text, sizeof text, "TempUpdate_%016" PRIx64, number);
    *name = text;
    Descriptor fd(openat(dir_fd, text, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (fd.is_open()) {
      if (fchmod(fd.get(), mode) == 0) return fd.release();
      unlinkat(dir_fd, text, 0);
      return -1;
    }
    if (errno != EEXIST) return -1;
  }
  return fail(EEXIST);
}

int sync_and_close(int fd, int (*sync)(int)) {
  const Descriptor owned(fd);
  return owned.is_open() ? sync(owned.get()) : -1;
}

// Gives up the replacement. Keeps the errno of the first failure.
int give_up(StorageHandle* handle, int error) {
  if (handle->error == 0) {
    handle->error = error;
    unlinkat(handle->dir_fd, handle->temporary.c_str(), 0);
  }
  return fail(handle->error);
}

}  // namespace

void storage_cfg_set_result_v(RpcResult* result, uint32_t code, const char* format, va_list args) {
  const int saved_errno = errno;
  // A copy, because the arguments may point into the old record.
  RpcResult made = {};
  made.peer_present = 'N';
  if (code == 0) {
    made.success = made.local_ok = made.remote_ok = 1;
  } else {
    made.local_ok = (code & kCodeNoExchange) == 0 && (code & kCodeInExchange) != 0;
    made.benign = (code & kCodeBenign) != 0;
    made.canceled = 1;
    if (format != nullptr && vsnprintf(made.reason, sizeof made.reason, format, args) < 0)
      made.reason[0] = '\0';
  }
  memcpy(result, &made, sizeof made);
  errno = saved_errno;
}

void storage_cfg_set_result(RpcResult* result, uint32_t code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  storage_cfg_set_result_v(result, code, format, args);
  va_end(args);
}

int storage_open_at(int kind, int dir_fd, const char* name, int flags, StorageHandle** handle) {
  (void)kind;
  if (*name == '\0' || strchr(name, '/') != nullptr || (flags & kStorageOpenWrite) == 0)
    return fail(EINVAL);
  std::string temporary;
  const mode_t mode = (flags & kStorageOpenRestricted) != 0 ? 0600 : 0644;
  const int fd = create_temporary(dir_fd, mode, &temporary);
  if (fd < 0) return -1;
  *handle = new StorageHandle{fd, 0, dir_fd, name, temporary, Descriptor()};
  return 0;
}

int storage_open(int kind, const char* path, int flags, StorageHandle** handle) {
  if (path[0] != '/') return fail(EINVAL);
  const char* name = strrchr(path, '/') + 1;
  Descriptor directory(
      open(std::string(path, name).c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
  if (!directory.is_open()) return -1;
  const int rc = storage_open_at(kind, directory.get(), name, flags, handle);
  if (rc == 0) (*handle)->own_directory = std::move(directory);
  return rc;
}

int storage_write_all(StorageHandle* handle, const void* data, size_t size) {
  if (handle->error != 0) return fail(handle->error);
  const int error = write_fully(handle->fd, data, size);
  return error == 0 ? 0 : give_up(handle, error);
}

int storage_close(StorageHandle* handle) {
  if (handle->error == 0 && fdatasync(handle->fd) != 0) give_up(handle, errno);
  if (close(handle->fd) != 0) give_up(handle, errno);
  const int dir_fd = handle->dir_fd;
  if (handle->error == 0 &&
      renameat(dir_fd, handle->temporary.c_str(), dir_fd, handle->name.c_str()) != 0) {
    give_up(handle, errno);
  }
  const bool replaced = handle->error == 0;
  if (replaced && fsync(dir_fd) != 0) handle->error = errno;
  const int error = handle->error;
  delete handle;
  if (error == 0) return 0;
  fail(error);
  return replaced ? kStorageReplaced : -1;
}

void storage_discard(StorageHandle* handle) {
  give_up(handle, ECANCELED);
  storage_close(handle);
}

int storage_sync_content(int dir_fd, const char* name) {
  struct stat status;
  if (fstatat(dir_fd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT ? 0 : -1;
  if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode)) return 0;
  const int fd = openat(dir_fd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  return sync_and_close(fd, S_ISDIR(status.st_mode) ? syncfs : fsync);
}

bool storage_can_rename(int source_dir_fd, int destination_dir_fd) {
  if (source_dir_fd == destination_dir_fd) return true;
  struct statx from;
  struct statx to;
  if (statx(source_dir_fd, "", AT_EMPTY_PATH, STATX_MNT_ID, &from) != 0 ||
      statx(destination_dir_fd, "", AT_EMPTY_PATH, STATX_MNT_ID, &to) != 0) {
    return true;
  }
  return from.stx_dev_major == to.stx_dev_major && from.stx_dev_minor == to.stx_dev_minor &&
         from.stx_mnt_id == to.stx_mnt_id;
}
