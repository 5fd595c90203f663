/* As programs were written for the library before 1.1: a late answer was taken for another one's.
 */
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
