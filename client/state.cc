// The state query: one packet each for the request and the answer.

#include <errno.h>
#include <string.h>

#include "client/connection.h"

static_assert(sizeof(cluster_sync_state) == 496, "as it is on the wire, little-endian");

int cluster_sync_send_state(cluster_sync_connection* connection, int timeout_ms) {
  return send_request(connection, kStateRequest, nullptr, 0, Deadline(timeout_ms));
}

int cluster_sync_receive_state(cluster_sync_connection* connection, int timeout_ms,
                               cluster_sync_state* state, size_t size) {
  memset(state, 0, size);
  Answer answer{};
  answer.payload = state;
  answer.room = size;
  const int error = receive_answer(connection, kStateRequest, Deadline(timeout_ms), &answer);
  if (error != 0) return error;
  if (size < sizeof state->size || answer.size < sizeof state->size || state->size != answer.size)
    return EPROTO;
  return 0;
}

int cluster_sync_get_state(const char* socket, int timeout_ms, cluster_sync_state* state,
                           size_t size) {
  const Deadline deadline(timeout_ms);
  cluster_sync_connection* connection = nullptr;
  int error = cluster_sync_open(socket, timeout_ms, &connection);
  if (error == 0) error = cluster_sync_send_state(connection, deadline.left_ms());
  if (error == 0) error = cluster_sync_receive_state(connection, deadline.left_ms(), state, size);
  cluster_sync_close(connection);
  return error == EAGAIN ? ETIMEDOUT : error;
}
