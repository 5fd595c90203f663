/* Publishes "loop" as the file named by the argument, from a loop around poll(2). */
#include <cluster_sync.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>

int main(int argc, char** argv) {
  struct cluster_sync_connection* connection;
  struct cluster_sync_result result;
  int error, turns = 0;
  if (argc != 2 || cluster_sync_open(NULL, 1000, &connection) != 0) return 2;
  if (cluster_sync_put_begin(connection, argv[1], 0644) != 0) return 3;
  if (cluster_sync_put_write(connection, "lo", 2) != 0) return 4;
  if (cluster_sync_put_write(connection, "op\n", 3) != 0) return 5;
  if (cluster_sync_put_send(connection, 0) != 0) return 6;
  if (cluster_sync_send_diag(connection, "stats", 0) != EBUSY) return 7;
  do {
    struct pollfd answer = {cluster_sync_fd(connection), POLLIN, 0};
    poll(&answer, 1, 100);
    error = cluster_sync_receive(connection, 0, NULL, &result);
  } while (error == EAGAIN && ++turns < 100);
  cluster_sync_close(connection);
  if (error == 0) printf("published, library %s\n", cluster_sync_version());
  return error;
}
