// Deletes a file if it exists, and distinguishes "was not there" from real errors.
#include <cluster_sync.h>

#include <cerrno>
#include <cstdio>
#include <memory>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  cluster_sync_connection* made = nullptr;
  if (cluster_sync_open(nullptr, 1000, &made) != 0) return 3;
  const std::unique_ptr<cluster_sync_connection, decltype(&cluster_sync_close)> connection(
      made, cluster_sync_close);
  int error = cluster_sync_send_update(made, nullptr, argv[1], 1000);
  cluster_sync_result result = {};
  if (error == 0) error = cluster_sync_receive(made, 20000, nullptr, &result);
  switch (cluster_sync_reason(error, &result)) {
    case CLUSTER_SYNC_NO_REASON:
      std::puts("deleted");
      return 0;
    case CLUSTER_SYNC_NO_SUCH_FILE:
      std::puts("was not there");
      return 0;
    default:
      std::printf("%s\n", error == ECANCELED ? result.reason : cluster_sync_strerror(error));
      return 1;
  }
}
