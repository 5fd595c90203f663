#include "platform/util.h"
#include "tests/unit/platform_support.h"

TEST(Cleanup, RemovesOldTemporariesOfTheRootsOnly) {
  const std::string active = "/mnt/part.persistent/replicated_by_active_em/";
  const std::string locked = "/mnt/part.persistent/replicated_by_this_em/";
  const std::string elsewhere = "/mnt/root_elsewhere/", outside = "/mnt/outside/";
  const std::string in_memory = "/var/run/replicated_by_active_em/";
  const char* const script[] = {CLEAN_UP_SCRIPT, nullptr};
  EXPECT_EQ(execute_normal(script), 0) << "without roots";
  const Mount persistent("/mnt/part.persistent"), read_only(locked);
  for (const std::string& directory :
       {active, in_memory, outside, elsewhere, active + "deep", active + "TempUpdate_directory"})
    mkdir(directory.c_str(), 0755);
  fs::create_symlink(outside + "TempUpdate_d", active + "TempUpdate_link");
  fs::create_symlink(outside, active + "link");
  fs::create_symlink(elsewhere, "/mnt/part.persistent/replicated_by_other_em");
  const struct {
    std::string path;
    int age;
    bool removed;
  } cases[] = {
      {active + "TempUpdate_\xff\n", 3700, true},  {active + "deep/TempUpdate_b", 86400, true},
      {in_memory + "TempUpdate_c", 3700, true},    {elsewhere + "TempUpdate_f", 3700, true},
      {active + "TempUpdate_young", 3000, false},  {active + "TempUpdate_future", -3700, false},
      {active + "data_TempUpdate_a", 3700, false}, {active + "TempUpdate_directory", 3700, false},
      {outside + "TempUpdate_d", 3700, false},     {active + "TempUpdate_link", 3700, false},
      {locked + "TempUpdate_e", 3700, false},
  };
  for (const auto& [path, age, removed] : cases) {
    if (!exists(path)) write_file(path, "x");
    const timespec times[] = {{time(nullptr) - age, 0}, {time(nullptr) - age, 0}};
    utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
  ASSERT_EQ(mount(nullptr, locked.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(execute_normal(script), 1) << "a failure, yet the other roots are cleaned";
  for (const auto& [path, age, removed] : cases)
    EXPECT_EQ(exists(path), !removed) << path;
}
