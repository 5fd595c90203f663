// Runs the tests in a private mount namespace, so that the daemon's real paths are theirs alone.

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

bool mount_empty(const char* path) {
  return mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") == 0;
}

// /var/run is a link to /run on most systems, and a directory of its own on some.
bool var_run_is_run() {
  char resolved[PATH_MAX];
  return realpath("/var/run", resolved) != nullptr && std::string(resolved) == "/run";
}

// /tmp stays what it is: the tests themselves may have been built below it.
bool enter_private_namespace() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && mount_empty("/mnt") &&
         mkdir("/mnt/part.persistent", 0755) == 0 && mount_empty("/run") &&
         (var_run_is_run() || mount_empty("/var/run"));
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  if (geteuid() != 0) {
    fprintf(stderr,
            "These tests need root: they mount file systems in a namespace of their own.\n");
    return 1;
  }
  if (!enter_private_namespace()) {
    fprintf(stderr, "Could not make a private mount namespace: %s\n", strerror(errno));
    return 1;
  }
  umask(0022);
  return RUN_ALL_TESTS();
}
