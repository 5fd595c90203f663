// Runs the tests in a private mount namespace, so that they can use the daemon's real paths.

#include <gtest/gtest.h>
#include <sched.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>

static bool mount_empty(const char* path) {
  return mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") == 0;
}

// /tmp is not replaced, because the tests may have been built below it.
static bool enter_private_namespace() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && mount_empty("/mnt") &&
         mkdir("/mnt/part.persistent", 0755) == 0 && mount_empty("/run") && mount_empty("/var/run");
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests) && !enter_private_namespace()) {
    perror("These tests need root, to mount file systems in a namespace of their own");
    return 1;
  }
  umask(0022);
  return RUN_ALL_TESTS();
}
