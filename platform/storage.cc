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

#include "platform/descriptor.h"

// A replacement under way. After a failure `error` holds its errno and the temporary is gone.
struct StorageHandle {
  int fd;
  int error;
  std::string path;
  std::string temporary;
};

namespace {

constexpr int kNameAttempts = 100;

int fail(int error) {
  errno = error;
  return -1;
}

// Makes a file with a fresh name in `directory` (which ends in '/'). Returns the descriptor and
// sets `*name`, or returns -1 with errno set.
int create_temporary(const std::string& directory, mode_t mode, std::string* name) {
  for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
    uint64_t number = 0;
    errno = EIO;  // of a short answer
    if (getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number)) return -1;
    char text[40];
    snprintf(text, sizeof text, "TempUpdate_%016" PRIx64, number);
    *name = directory + text;
    const int fd = open(name->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return fail(EEXIST);
}

// The directory that holds the name `path`, with its slash.
std::string directory_of(const char* path) {
  std::string directory = path;
  while (directory.size() > 1 && directory.back() == '/')
    directory.pop_back();
  directory.resize(directory.rfind('/') + 1);
  return directory.empty() ? "./" : directory;
}

int open_to_sync(const char* path) {
  return open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

int sync_and_close(int fd, int (*sync)(int)) {
  const Descriptor owned(fd);
  return owned.is_open() ? sync(owned.get()) : -1;
}

// Gives the replacement up; the first failure's errno is the one that counts.
int give_up(StorageHandle* handle, int error) {
  if (handle->error == 0) {
    handle->error = error;
    unlink(handle->temporary.c_str());
  }
  return fail(handle->error);
}

}  // namespace

void storage_cfg_set_result_v(RpcResult* result, uint32_t code, const char* format, va_list args) {
  const int saved_errno = errno;
  // Built aside, because the arguments may point into the old record.
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

int storage_open(int kind, const char* path, int flags, StorageHandle** handle) {
  (void)kind;
  const std::string target = path;
  const size_t slash = target.rfind('/');
  if (target[0] != '/' || slash + 1 == target.size() || (flags & kStorageOpenWrite) == 0)
    return fail(EINVAL);

  std::string temporary;
  const mode_t mode = (flags & kStorageOpenRestricted) != 0 ? 0600 : 0644;
  const int fd = create_temporary(target.substr(0, slash + 1), mode, &temporary);
  if (fd < 0) return -1;
  *handle = new StorageHandle{fd, 0, target, temporary};
  return 0;
}

int storage_write_all(StorageHandle* handle, const void* data, size_t size) {
  if (handle->error != 0) return fail(handle->error);
  const int error = write_fully(handle->fd, data, size);
  return error == 0 ? 0 : give_up(handle, error);
}

int storage_close(StorageHandle* handle) {
  if (handle->error == 0 && fdatasync(handle->fd) != 0) give_up(handle, errno);
  if (close(handle->fd) != 0) give_up(handle, errno);
  if (handle->error == 0 && rename(handle->temporary.c_str(), handle->path.c_str()) != 0)
    give_up(handle, errno);
  if (handle->error == 0 && storage_sync_name(handle->path.c_str()) != 0) handle->error = errno;
  const int error = handle->error;
  delete handle;
  return error == 0 ? 0 : fail(error);
}

int storage_sync_content(const char* path) {
  struct stat status;
  if (lstat(path, &status) != 0) return 0;
  if (S_ISDIR(status.st_mode)) return sync_and_close(open_to_sync(path), syncfs);
  return S_ISREG(status.st_mode) ? sync_and_close(open_to_sync(path), fsync) : 0;
}

int storage_sync_name(const char* path) {
  return sync_and_close(open_to_sync(directory_of(path).c_str()), fsync);
}

bool storage_can_rename(const char* source, const char* destination) {
  struct statx from;
  struct statx to;
  if (statx(AT_FDCWD, directory_of(source).c_str(), 0, STATX_MNT_ID, &from) != 0 ||
      statx(AT_FDCWD, directory_of(destination).c_str(), 0, STATX_MNT_ID, &to) != 0) {
    return true;
  }
  return from.stx_dev_major == to.stx_dev_major && from.stx_dev_minor == to.stx_dev_minor &&
         from.stx_mnt_id == to.stx_mnt_id;
}
