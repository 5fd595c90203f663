#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <time.h>

#include "platform/util.h"
#include "platform_support.h"

namespace {

constexpr char kActiveRoot[] = "/mnt/part.persistent/replicated_by_active_em";
constexpr char kThisRoot[] = "/mnt/part.persistent/replicated_by_this_em";
constexpr char kOtherRoot[] = "/mnt/part.persistent/replicated_by_other_em";
constexpr char kVolatileRoot[] = "/var/run/replicated_by_active_em";

int run_script() {
  const char* const argv[] = {CLEAN_UP_SCRIPT, nullptr};
  return execute_normal(argv);
}

void set_age(const std::string& path, int seconds) {
  const timespec written = {time(nullptr) - seconds, 0};
  const timespec times[] = {written, written};
  utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

TEST(Cleanup, MissingRootsAreNoFailure) {
  EXPECT_EQ(run_script(), 0);
}

TEST(Cleanup, RemovesOldTemporariesOfTheRootsOnly) {
  for (const std::string root : {kActiveRoot, kThisRoot, kVolatileRoot})
    mkdir(root.c_str(), 0755);
  const std::string active = std::string(kActiveRoot) + "/";
  const std::string outside = "/mnt/outside/";
  for (const std::string& directory : {active + "deep", active + "deep/er", outside})
    mkdir(directory.c_str(), 0755);
  const struct {
    std::string path;
    int age;
    bool removed;
  } cases[] = {
      {active + "TempUpdate_a", 3700, true},
      {active + "TempUpdate_", 3700, true},
      {active + "TempUpdate_\xff\n", 3700, true},
      {active + "deep/er/TempUpdate_b", 86400, true},
      {std::string(kThisRoot) + "/TempUpdate_c", 3700, true},
      {std::string(kVolatileRoot) + "/TempUpdate_d", 3700, true},
      {active + "TempUpdate_young", 3000, false},
      {active + "TempUpdate_future", -3700, false},
      {active + "tempupdate_a", 3700, false},
      {active + "data_TempUpdate_a", 3700, false},
      {outside + "TempUpdate_e", 3700, false},
      {"/mnt/part.persistent/TempUpdate_f", 3700, false},
  };
  for (const auto& c : cases) {
    write_file(c.path, "x");
    set_age(c.path, c.age);
  }
  // Neither links nor what they lead to, be it a file, a directory or a root.
  ASSERT_EQ(symlink((outside + "TempUpdate_e").c_str(), (active + "TempUpdate_link").c_str()), 0);
  set_age(active + "TempUpdate_link", 3700);
  ASSERT_EQ(symlink(outside.c_str(), (active + "link").c_str()), 0);
  ASSERT_EQ(symlink(outside.c_str(), kOtherRoot), 0);
  ASSERT_EQ(mkdir((active + "TempUpdate_directory").c_str(), 0755), 0);
  set_age(active + "TempUpdate_directory", 3700);
  ASSERT_EQ(mkfifo((active + "TempUpdate_fifo").c_str(), 0644), 0);
  set_age(active + "TempUpdate_fifo", 3700);

  EXPECT_EQ(run_script(), 0);
  for (const auto& c : cases)
    EXPECT_EQ(exists(c.path), !c.removed) << c.path;
  EXPECT_TRUE(exists(active + "TempUpdate_link"));
  EXPECT_TRUE(exists(active + "TempUpdate_directory"));
  EXPECT_TRUE(exists(active + "TempUpdate_fifo"));
  unlink(kOtherRoot);
}

TEST(Cleanup, FailureIsReportedAndTheOtherRootsAreCleaned) {
  mkdir(kActiveRoot, 0755);
  mkdir(kVolatileRoot, 0755);
  ASSERT_EQ(mount("tmpfs", kActiveRoot, "tmpfs", 0, nullptr), 0);
  const std::string stuck = std::string(kActiveRoot) + "/TempUpdate_stuck";
  const std::string other = std::string(kVolatileRoot) + "/TempUpdate_other";
  for (const std::string& path : {stuck, other}) {
    write_file(path, "x");
    set_age(path, 3700);
  }
  ASSERT_EQ(mount(nullptr, kActiveRoot, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(run_script(), 1);
  EXPECT_TRUE(exists(stuck));
  EXPECT_FALSE(exists(other));
  umount(kActiveRoot);
}

}  // namespace
