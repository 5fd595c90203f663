#include <time.h>

#include "platform/util.h"
#include "platform_support.h"

namespace {

const std::string kActive = "/mnt/part.persistent/replicated_by_active_em/";
const std::string kLocked = "/mnt/part.persistent/replicated_by_this_em/";
const std::string kVolatile = "/var/run/replicated_by_active_em/";
const std::string kOutside = "/mnt/outside/";

TEST(Cleanup, RemovesOldTemporariesOfTheRootsOnly) {
  const char* const script[] = {CLEAN_UP_SCRIPT, nullptr};
  EXPECT_EQ(execute_normal(script), 0) << "without roots";
  const Mount persistent("/mnt/part.persistent"), locked(kLocked);
  for (const std::string& directory :
       {kActive, kVolatile, kOutside, kActive + "deep", kActive + "TempUpdate_directory"})
    mkdir(directory.c_str(), 0755);
  std::filesystem::create_symlink(kOutside + "TempUpdate_d", kActive + "TempUpdate_link");
  std::filesystem::create_symlink(kOutside, kActive + "link");
  const std::string elsewhere = "/mnt/root_elsewhere/";
  mkdir(elsewhere.c_str(), 0755);
  std::filesystem::create_symlink(elsewhere, "/mnt/part.persistent/replicated_by_other_em");
  const struct {
    std::string path;
    int age;
    bool removed;
  } cases[] = {
      {kActive + "TempUpdate_\xff\n", 3700, true},  {kActive + "deep/TempUpdate_b", 86400, true},
      {kVolatile + "TempUpdate_c", 3700, true},     {elsewhere + "TempUpdate_f", 3700, true},
      {kActive + "TempUpdate_young", 3000, false},  {kActive + "TempUpdate_future", -3700, false},
      {kActive + "data_TempUpdate_a", 3700, false}, {kActive + "TempUpdate_directory", 3700, false},
      {kOutside + "TempUpdate_d", 3700, false},     {kActive + "TempUpdate_link", 3700, false},
      {kLocked + "TempUpdate_e", 3700, false},
  };
  for (const auto& [path, age, removed] : cases) {
    if (!exists(path)) write_file(path, "x");
    const timespec written = {time(nullptr) - age, 0};
    const timespec times[] = {written, written};
    utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
  ASSERT_EQ(mount(nullptr, kLocked.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(execute_normal(script), 1) << "a failure, yet the other roots are cleaned";
  for (const auto& [path, age, removed] : cases)
    EXPECT_EQ(exists(path), !removed) << path;
}

}  // namespace
