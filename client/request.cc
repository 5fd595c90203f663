// One request, from the connection to the answer.

#include "client/request.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "client/deadline.h"

int request_update(const char* socket, const char* source, const char* destination, int timeout_ms,
                   cluster_sync_result* result) {
  const Deadline deadline(timeout_ms);
  cluster_sync_result unwanted;
  if (result == nullptr) result = &unwanted;
  int connection = -1;
  int error = cluster_sync_connect(socket, deadline.left_ms(), &connection);
  if (error != 0) return error;
  error = cluster_sync_send_update(connection, source, destination, deadline.left_ms());
  if (error == 0) error = cluster_sync_receive(connection, deadline.left_ms(), nullptr, result);
  close(connection);
  return error;
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
  int connection = -1;
  int error = cluster_sync_connect(socket, deadline.left_ms(), &connection);
  if (error != 0) return error;
  error = cluster_sync_send_diag(connection, command, deadline.left_ms());
  if (error == 0) error = cluster_sync_receive(connection, deadline.left_ms(), nullptr, nullptr);
  close(connection);
  return error;
}

const char* cluster_sync_strerror(int error) {
  switch (error) {
    case ECONNREFUSED:
      return "no daemon answers on the command socket";
    case ECONNRESET:
      return "the daemon closed the connection without an answer";
    case ETIMEDOUT:
      return "no answer within the time limit";
    case ECANCELED:
      return "the daemon refuses the request or reports a failure";
    case EPROTO:
      return "the daemon's answer cannot be understood";
    case EXDEV:
      return "the path lies in none of the replicated trees "
             "(/mnt/part.persistent/replicated_by_..._em, /var/run/replicated_by_active_em)";
    default: {
      const char* text = strerrordesc_np(error);
      return text != nullptr ? text : "unknown error";
    }
  }
}
