// Updates and diagnostic commands, in steps or in one call.

#include "client/request.h"

#include <endian.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "client/tree_place.h"

namespace {

constexpr size_t kMaxMessageSize = 65536;

// Fills in the result for an answer that has a status but no record.
void fill_unknown(cluster_sync_result* result) {
  *result = {};
  result->canceled = 1;
  result->peer_present = 'N';
  strcpy(result->reason, "the daemon does not know this request");
}

// Converts the received bytes to a record. Returns false if they are invalid.
bool read_record(cluster_sync_result* record) {
  record->peer_present = le32toh(record->peer_present);
  return memchr(record->reason, '\0', sizeof record->reason) != nullptr &&
         (record->peer_present == 'Y' || record->peer_present == 'N');
}

int request_update(const char* socket, const char* source, const char* destination, int timeout_ms,
                   cluster_sync_result* result) {
  const Deadline deadline(timeout_ms);
  cluster_sync_connection* connection = nullptr;
  int error = cluster_sync_open(socket, timeout_ms, &connection);
  if (error == 0)
    error = cluster_sync_send_update(connection, source, destination, deadline.left_ms());
  if (error == 0) error = receive_or_withdraw(connection, deadline, result);
  cluster_sync_close(connection);
  return error;
}

}  // namespace

int send_paths(cluster_sync_connection* connection, const char* source, const char* destination,
               const Deadline& deadline) {
  const iovec paths[] = {{const_cast<char*>(source), strlen(source) + 1},
                         {const_cast<char*>(destination), strlen(destination) + 1}};
  return send_request(connection, kUpdateRequest, paths, 2, deadline);
}

int receive_or_withdraw(cluster_sync_connection* connection, const Deadline& deadline,
                        cluster_sync_result* result) {
  const int error = cluster_sync_receive(connection, deadline.left_ms(), nullptr, result);
  return error == EAGAIN ? cluster_sync_withdraw(connection) : error;
}

int cluster_sync_send_update(cluster_sync_connection* connection, const char* source,
                             const char* destination, int timeout_ms) {
  const Deadline deadline(timeout_ms);
  char from[PATH_MAX] = "";
  char to[PATH_MAX] = "";
  if (source != nullptr && destination == nullptr) return EINVAL;
  int error = source != nullptr ? spell_source(source, from) : 0;
  if (error == 0 && destination != nullptr) error = spell_destination(destination, to);
  if (error == 0) error = send_paths(connection, from, to, deadline);
  if (error == 0) strcpy(connection->source, from);
  return error;
}

int cluster_sync_send_diag(cluster_sync_connection* connection, const char* command,
                           int timeout_ms) {
  const size_t size = command != nullptr ? strlen(command) : 0;
  if (size == 0) return EINVAL;
  if (size > kMaxMessageSize) return ENAMETOOLONG;
  const iovec message = {const_cast<char*>(command), size};
  return send_request(connection, kDiagnosticRequest, &message, 1, Deadline(timeout_ms));
}

int receive_record(cluster_sync_connection* connection, RequestType type, const Deadline& deadline,
                   uint32_t* status, cluster_sync_result* result, int* descriptor) {
  cluster_sync_result record;
  Answer answer = {0, &record, sizeof record, 0, -1};
  const int error = receive_answer(connection, type, deadline, &answer);
  if (descriptor != nullptr) *descriptor = answer.descriptor;
  if (error == EAGAIN || error == ENOMSG) return error;
  discard_put(&connection->put);
  if (status != nullptr) *status = answer.status;
  if (error == ECANCELED && result != nullptr) fill_unknown(result);
  if (error != 0 || type == kDiagnosticRequest) return error;
  if (answer.size != sizeof record || !read_record(&record)) return EPROTO;
  if (result != nullptr) *result = record;
  return record.success != 0 ? 0 : ECANCELED;
}

int cluster_sync_receive(cluster_sync_connection* connection, int timeout_ms, uint32_t* status,
                         cluster_sync_result* result) {
  const RequestType request = connection->request;
  if (request != kUpdateRequest && request != kDiagnosticRequest) return ENOMSG;
  return receive_record(connection, request, Deadline(timeout_ms), status, result, nullptr);
}

int cluster_sync_withdraw(cluster_sync_connection* connection) {
  if (connection->put.place.directory >= 0)
    return discard_put(&connection->put) ? EINPROGRESS : ETIMEDOUT;
  if (!connection->is_asked) return ENOMSG;
  struct stat status;
  const bool is_left = connection->source[0] != '\0' && lstat(connection->source, &status) == 0;
  return is_left ? ETIMEDOUT : EINPROGRESS;
}

int cluster_sync_update(const char* socket, const char* source, const char* destination,
                        int timeout_ms, cluster_sync_result* result) {
  if (source == nullptr || destination == nullptr) return EINVAL;
  return request_update(socket, source, destination, timeout_ms, result);
}

int cluster_sync_delete(const char* socket, const char* destination, int timeout_ms,
                        cluster_sync_result* result) {
  if (destination == nullptr) return EINVAL;
  return request_update(socket, nullptr, destination, timeout_ms, result);
}

int cluster_sync_sync(const char* socket, int timeout_ms, cluster_sync_result* result) {
  return request_update(socket, nullptr, nullptr, timeout_ms, result);
}

int cluster_sync_diag(const char* socket, const char* command, int timeout_ms) {
  const Deadline deadline(timeout_ms);
  cluster_sync_connection* connection = nullptr;
  int error = cluster_sync_open(socket, timeout_ms, &connection);
  if (error == 0) error = cluster_sync_send_diag(connection, command, deadline.left_ms());
  if (error == 0) error = receive_or_withdraw(connection, deadline, nullptr);
  cluster_sync_close(connection);
  return error;
}
