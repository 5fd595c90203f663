/* A program for the library before 1.1, with which a late answer could be mistaken for another one. */
#include <cluster_sync.h>
#include <unistd.h>

int main(void) {
  int connection;
  struct cluster_sync_result result;
  if (cluster_sync_connect(NULL, 100, &connection) != 0) return 1;
  cluster_sync_send_update(connection, NULL, NULL, 100);
  cluster_sync_receive(connection, 100, NULL, &result);
  close(connection);
  return 0;
}
