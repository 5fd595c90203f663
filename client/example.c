/* Publishes standard input as the replicated file named by the argument. */
#include <cluster_sync.h>
#include <errno.h>
#include <stdio.h>

int main(int argc, char** argv) {
  struct cluster_sync_result result;
  int error;
  if (argc != 2) return 2;
  error = cluster_sync_put_fd(NULL, 0, argv[1], 0644, 60000, &result);
  if (error == ECANCELED)
    fprintf(stderr, "%s: %s\n", argv[1], result.reason);
  else if (error == EINPROGRESS)
    fprintf(stderr, "%s: published here; the other enclosure manager will follow\n", argv[1]);
  else if (error != 0)
    fprintf(stderr, "%s: %s\n", argv[1], cluster_sync_strerror(error));
  else if (result.peer_present == 'N')
    puts("published here; the other enclosure manager is away");
  else
    puts("published on both enclosure managers");
  return error != 0;
}
