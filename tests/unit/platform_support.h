#ifndef TESTS_UNIT_PLATFORM_SUPPORT_H_
#define TESTS_UNIT_PLATFORM_SUPPORT_H_

// Shared by all tests, with the common headers.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

inline std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_file(const std::string& path, const std::string& content, mode_t mode = 0644) {
  std::ofstream(path, std::ios::binary) << content;
  chmod(path.c_str(), mode);
}

// Permission bits, -1 if there is no such file.
inline int mode_of(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 ? static_cast<int>(info.st_mode & 07777) : -1;
}

inline bool exists(const std::string& path) {
  return mode_of(path) >= 0;
}

inline std::set<std::string> names_in(const std::string& directory) {
  std::set<std::string> names;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(directory, missing))
    names.insert(entry.path().filename());
  return names;
}

// Exit status of a process that only runs `action`, -1 if it did not exit.
inline int run_forked(const std::function<int()>& action) {
  const pid_t pid = fork();
  if (pid == 0) _exit(action());
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Mounts an empty file system, or `source`, on `path` for the lifetime of the object.
struct Mount {
  explicit Mount(const std::string& on, const char* options = nullptr, const char* source = nullptr)
      : path(on) {
    if (source == nullptr) mkdir(path.c_str(), 0755);
    EXPECT_EQ(mount(source != nullptr ? source : "tmpfs", path.c_str(), "tmpfs",
                    source != nullptr ? MS_BIND : 0, options),
              0)
        << path;
  }
  ~Mount() {
    umount2(path.c_str(), MNT_DETACH);
  }
  const std::string path;
};

#endif  // TESTS_UNIT_PLATFORM_SUPPORT_H_
