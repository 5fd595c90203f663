// Publishing: writes a temporary file in the directory of the destination and asks for its rename.

#include "client/put.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/connection.h"
#include "client/request.h"

namespace {

constexpr mode_t kPublicMode = 0644;
constexpr mode_t kRestrictedMode = 0600;
constexpr char kPrefix[] = "TempUpdate_";
constexpr int kNameTries = 100;

void make_name(char name[sizeof Put::name]) {
  constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz012345";
  unsigned char random[6] = {};
  [[maybe_unused]] const ssize_t size = getrandom(random, sizeof random, 0);
  char* end = stpcpy(name, kPrefix);
  for (const unsigned char byte : random)
    *end++ = kLetters[byte % 32];
  *end = '\0';
}

// Calls `try_name`, which returns 0 or -1 with errno, until it finds a free name. Afterwards
// put->name is that name, or empty.
template <typename TryName>
int with_free_name(Put* put, TryName try_name) {
  int error = EEXIST;
  for (int i = 0; i < kNameTries && error == EEXIST; ++i) {
    make_name(put->name);
    error = try_name() == 0 ? 0 : errno;
  }
  if (error != 0) put->name[0] = '\0';
  return error;
}

// Creates the file, without a name if the file system allows that.
int make_file(Put* put) {
  const int directory = put->place.directory;
  put->fd = openat(directory, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, kRestrictedMode);
  if (put->fd >= 0) return 0;
  // EISDIR: the kernel does not know O_TMPFILE.
  if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) return errno;
  return with_free_name(put, [put, directory] {
    put->fd =
        openat(directory, put->name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kRestrictedMode);
    return put->fd < 0 ? -1 : 0;
  });
}

int name_file(Put* put) {
  if (put->name[0] != '\0') return 0;
  char link[32];
  snprintf(link, sizeof link, "/proc/self/fd/%d", put->fd);
  return with_free_name(put, [put, &link] {
    const int rc = linkat(AT_FDCWD, link, put->place.directory, put->name, AT_SYMLINK_FOLLOW);
    if (rc == 0 || errno != ENOENT) return rc;
    return linkat(put->fd, "", put->place.directory, put->name, AT_EMPTY_PATH);  // without /proc
  });
}

int begin_put(Put* put, const char* destination, mode_t mode) {
  int error = find_place(destination, &put->place);
  if (error == 0) error = make_file(put);
  if (error != 0) return error;
  const bool is_public = (mode & kPublicMode) == kPublicMode;
  return fchmod(put->fd, is_public ? kPublicMode : kRestrictedMode) == 0 ? 0 : errno;
}

int append(Put* put, const char* data, size_t size) {
  // A larger file would fail every later exchange.
  if (uint64_t{size} > UINT32_MAX - put->size) return EFBIG;
  put->size += size;
  while (size > 0) {
    const ssize_t n = write(put->fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return 0;
}

// Syncs the file and gives it its name.
int finish_file(Put* put) {
  if (fsync(put->fd) != 0) return errno;
  const int error = name_file(put);
  if (error != 0) return error;
  const int fd = put->fd;
  put->fd = -1;
  return close(fd) == 0 ? 0 : errno;
}

int send_put(cluster_sync_connection* connection, const Deadline& deadline) {
  const Put& put = connection->put;
  char source[PATH_MAX];
  const int length = static_cast<int>(put.place.name - put.place.spelling);
  if (snprintf(source, sizeof source, "%.*s%s", length, put.place.spelling, put.name) >= PATH_MAX)
    return ENAMETOOLONG;
  return send_paths(connection, source, put.place.spelling, deadline);
}

// Appends the bytes read from `fd`. The time limit covers only waiting for input.
int append_input(cluster_sync_connection* connection, int fd, Deadline* deadline) {
  char buffer[65536];
  for (;;) {
    int error = wait_readable(fd, *deadline);
    if (error != 0) return error;
    const int64_t start = Deadline::now_ms();
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n == 0) return 0;
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n < 0) return errno;
    error = cluster_sync_put_write(connection, buffer, static_cast<size_t>(n));
    if (error != 0) return error;
    deadline->exclude_since(start);
  }
}

// Refuses a file that is too large before it is copied.
int check_size(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) return errno;
  return S_ISREG(status.st_mode) && status.st_size > int64_t{UINT32_MAX} ? EFBIG : 0;
}

// Publishes the bytes that `add_content` appends to the put of a connection.
template <typename AddContent>
int publish(const char* socket, const char* destination, mode_t mode, int timeout_ms,
            cluster_sync_result* result, AddContent add_content) {
  Deadline deadline(timeout_ms);
  cluster_sync_connection* connection = nullptr;
  int error = cluster_sync_open(socket, timeout_ms, &connection);
  if (error == 0) error = cluster_sync_put_begin(connection, destination, mode);
  if (error == 0) error = add_content(connection, &deadline);
  const int64_t start = Deadline::now_ms();
  if (error == 0) error = cluster_sync_put_send(connection, deadline.left_ms());
  if (error == 0) {
    deadline.exclude_since(start);
    error = receive_or_withdraw(connection, deadline, result);
  }
  cluster_sync_close(connection);
  return error;
}

}  // namespace

bool discard_put(Put* put) {
  bool taken = false;
  if (put->fd >= 0) close(put->fd);
  if (put->name[0] != '\0')
    taken = unlinkat(put->place.directory, put->name, 0) != 0 && errno == ENOENT;
  if (put->place.directory >= 0) close(put->place.directory);
  *put = kNoPut;
  return taken;
}

int cluster_sync_put_begin(cluster_sync_connection* connection, const char* destination,
                           mode_t mode) {
  if (connection->is_asked || connection->put.fd >= 0) return EBUSY;
  const int error = begin_put(&connection->put, destination, mode);
  if (error != 0) discard_put(&connection->put);
  return error;
}

int cluster_sync_put_write(cluster_sync_connection* connection, const void* data, size_t size) {
  if (connection->put.fd < 0) return ENOMSG;
  const int error = append(&connection->put, static_cast<const char*>(data), size);
  if (error != 0) discard_put(&connection->put);
  return error;
}

int cluster_sync_put_send(cluster_sync_connection* connection, int timeout_ms) {
  if (connection->put.fd < 0) return ENOMSG;
  int error = finish_file(&connection->put);
  if (error == 0) error = send_put(connection, Deadline(timeout_ms));
  if (error != 0) discard_put(&connection->put);
  return error;
}

int cluster_sync_put(const char* socket, const void* data, size_t size, const char* destination,
                     mode_t mode, int timeout_ms, cluster_sync_result* result) {
  return publish(socket, destination, mode, timeout_ms, result,
                 [data, size](cluster_sync_connection* connection, const Deadline* /*deadline*/) {
                   return cluster_sync_put_write(connection, data, size);
                 });
}

int cluster_sync_put_fd(const char* socket, int fd, const char* destination, mode_t mode,
                        int timeout_ms, cluster_sync_result* result) {
  const int error = check_size(fd);
  if (error != 0) return error;
  return publish(socket, destination, mode, timeout_ms, result,
                 [fd](cluster_sync_connection* connection, Deadline* deadline) {
                   return append_input(connection, fd, deadline);
                 });
}
