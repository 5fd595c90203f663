#include "platform/daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "platform_support.h"

namespace {

constexpr char kPidFile[] = "/var/run/CLUS_SYNC.pid";
constexpr char kEndFifo[] = "/run/end";

int run_until_told(int argc, char** argv) {
  close(open("/run/made", O_CREAT | O_WRONLY, 0666));
  write_file("/run/arguments", std::to_string(argc) + argv[1]);
  daemon_signal_daemonize_complete();
  daemon_signal_daemonize_complete();  // once more is nothing
  read_file(kEndFifo);
  return 5;
}

int return_early(int, char**) {
  return 0;
}

int abort_early(int, char**) {
  abort();
}

// Calls daemon_create as a program of its own would. Returns its exit status; its standard error
// is in /run/stderr.
int start(int (*daemon_main)(int, char**)) {
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open("/run/stderr", O_CREAT | O_TRUNC | O_WRONLY, 0644), STDERR_FILENO);
    char name[] = "program";
    char argument[] = "-a";
    char* argv[] = {name, argument, nullptr};
    _exit(daemon_create("CLUS_SYNC", daemon_main, 2, argv));
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Ends a daemon that runs `run_until_told` and returns its exit status.
int end_daemon() {
  const pid_t pid = std::stoi(read_file(kPidFile));
  write_file(kEndFifo, "end");
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class DaemonTest : public testing::Test {
 protected:
  void SetUp() override {
    // The daemons become children of this process, so that it can wait for them.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    mkfifo(kEndFifo, 0600);
  }

  void TearDown() override {
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    unlink(kPidFile);
  }
};

TEST_F(DaemonTest, StartsOnceAndEndsOrderly) {
  ASSERT_EQ(start(run_until_told), 0) << read_file("/run/stderr");
  EXPECT_EQ(read_file("/run/arguments"), "2-a");
  EXPECT_EQ(mode_of("/run/made"), 0644);
  const std::string pid_text = read_file(kPidFile);

  EXPECT_NE(start(run_until_told), 0);
  EXPECT_NE(read_file("/run/stderr").find("another instance is running"), std::string::npos);
  EXPECT_EQ(read_file(kPidFile), pid_text);

  EXPECT_EQ(end_daemon(), 5);
  EXPECT_FALSE(exists(kPidFile));
  ASSERT_EQ(start(run_until_told), 0);
  end_daemon();
}

TEST_F(DaemonTest, EndBeforeTheSignalIsAFailureAndBlocksNobody) {
  for (int (*daemon_main)(int, char**) : {return_early, abort_early}) {
    EXPECT_NE(start(daemon_main), 0);
    EXPECT_NE(read_file("/run/stderr").find("before its start-up was complete"), std::string::npos);
  }
  ASSERT_EQ(start(run_until_told), 0) << read_file("/run/stderr");
  end_daemon();
}

TEST_F(DaemonTest, PidFileOfACrashedInstanceIsTakenOver) {
  // The number has come to belong to another process meanwhile: this one.
  write_file(kPidFile, std::to_string(getpid()) + "0000\n" + std::string(100, 'x'));
  ASSERT_EQ(start(run_until_told), 0) << read_file("/run/stderr");
  EXPECT_EQ(read_file(kPidFile).find('x'), std::string::npos);
  end_daemon();
}

TEST_F(DaemonTest, UnwritablePidFileIsAFailureWithAReason) {
  ASSERT_EQ(mkdir(kPidFile, 0755), 0);
  EXPECT_NE(start(run_until_told), 0);
  EXPECT_NE(read_file("/run/stderr").find(kPidFile), std::string::npos);
  rmdir(kPidFile);
}

TEST(Daemon, SignalWithoutAWaitingParentIsNothing) {
  daemon_signal_daemonize_complete();
}

}  // namespace
