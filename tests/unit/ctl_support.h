#ifndef TESTS_UNIT_CTL_SUPPORT_H_
#define TESTS_UNIT_CTL_SUPPORT_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/unit/platform_support.h"

struct Outcome {
  int status;
  std::string out;
};

// Starts the client, which the build puts beside the tests, with `/mnt` as its current directory.
// Its output goes to /run/stdout and /run/stderr.
inline pid_t start_ctl(const std::vector<std::string>& words, const char* input = "/dev/null") {
  const std::string program =
      std::filesystem::read_symlink("/proc/self/exe").replace_filename("cluster_sync_ctl");
  std::vector<char*> argv = {const_cast<char*>("cluster_sync_ctl")};
  for (const std::string& word : words)
    argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input, O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/run/stdout",
                                   O_CREAT | O_TRUNC | O_WRONLY, 0644);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/run/stderr",
                                   O_CREAT | O_TRUNC | O_WRONLY, 0644);
  posix_spawn_file_actions_addchdir_np(&actions, "/mnt");
  pid_t pid = 0;
  EXPECT_EQ(posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ), 0)
      << program;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

// Runs the client to its end.
inline Outcome run_ctl(const std::vector<std::string>& words, const char* input = "/dev/null") {
  int status = 0;
  waitpid(start_ctl(words, input), &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file("/run/stdout")};
}

#endif  // TESTS_UNIT_CTL_SUPPORT_H_
