// Comparisons of the trees of both EMs. The report is received as a file.

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "client/request.h"

namespace {

// Reads "=tree here there only-here only-there different".
bool read_counts(const char* text, cluster_sync_tree* tree) {
  int end = 0;
  return sscanf(text, "=%15s %u %u %u %u %u%n", tree->name, &tree->here, &tree->there,
                &tree->only_here, &tree->only_there, &tree->different, &end) == 6 &&
         text[end] == '\0';
}

// Passes "<tree/path" to the caller's function and returns its result. EPROTO if the text is
// invalid.
int hand_on(char* text, cluster_sync_difference_fn on_difference, void* argument) {
  char* slash = strchr(text, '/');
  if (slash == nullptr || strchr("<>!", text[0]) == nullptr) return EPROTO;
  *slash = '\0';
  return on_difference(argument, text[0], text + 1, slash + 1);
}

int read_report(FILE* report, cluster_sync_tree trees[CLUSTER_SYNC_TREES],
                cluster_sync_difference_fn on_difference, void* argument) {
  char* text = nullptr;
  size_t room = 0;
  int error = 0;
  for (int i = 0; error == 0 && getdelim(&text, &room, '\0', report) > 0; ++i) {
    if (i < CLUSTER_SYNC_TREES)
      error = read_counts(text, &trees[i]) ? 0 : EPROTO;
    else if (on_difference != nullptr)
      error = hand_on(text, on_difference, argument);
    else
      break;
  }
  if (error == 0 && ferror(report)) error = EIO;
  free(text);
  return error;
}

}  // namespace

int cluster_sync_send_compare(cluster_sync_connection* connection, int timeout_ms) {
  return send_request(connection, kCompareRequest, nullptr, 0, Deadline(timeout_ms));
}

int cluster_sync_receive_compare(cluster_sync_connection* connection, int timeout_ms,
                                 cluster_sync_tree trees[CLUSTER_SYNC_TREES],
                                 cluster_sync_difference_fn on_difference, void* argument,
                                 cluster_sync_result* result) {
  cluster_sync_result record;
  int descriptor = -1;
  int error = receive_record(connection, kCompareRequest, Deadline(timeout_ms), nullptr, &record,
                             &descriptor);
  if ((error == 0 || error == ECANCELED) && result != nullptr) *result = record;
  if (error == 0 && record.peer_present == 'N') error = EHOSTDOWN;
  if (error == 0 && descriptor < 0) error = EPROTO;
  FILE* report = error == 0 && descriptor >= 0 ? fdopen(descriptor, "r") : nullptr;
  if (error == 0 && report == nullptr) error = errno;
  if (report == nullptr) {
    if (descriptor >= 0) close(descriptor);
    return error;
  }
  memset(trees, 0, CLUSTER_SYNC_TREES * sizeof *trees);
  error = read_report(report, trees, on_difference, argument);
  fclose(report);
  return error != 0 || trees[CLUSTER_SYNC_TREES - 1].name[0] != '\0' ? error : EPROTO;
}

int cluster_sync_compare(const char* socket, int timeout_ms,
                         cluster_sync_tree trees[CLUSTER_SYNC_TREES],
                         cluster_sync_difference_fn on_difference, void* argument,
                         cluster_sync_result* result) {
  const Deadline deadline(timeout_ms);
  cluster_sync_connection* connection = nullptr;
  int error = cluster_sync_open(socket, timeout_ms, &connection);
  if (error == 0) error = cluster_sync_send_compare(connection, deadline.left_ms());
  if (error == 0) {
    error = cluster_sync_receive_compare(connection, deadline.left_ms(), trees, on_difference,
                                         argument, result);
    if (error == EAGAIN) error = cluster_sync_withdraw(connection);
  }
  cluster_sync_close(connection);
  return error;
}
