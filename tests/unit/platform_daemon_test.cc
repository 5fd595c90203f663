#include "platform/daemon.h"

#include <sys/prctl.h>

#include "tests/unit/platform_support.h"

namespace {

constexpr char kPidFile[] = "/var/run/CLUS_SYNC.pid";

int run_until_told(int argc, char** argv) {
  close(open("/run/made", O_CREAT | O_WRONLY, 0666));
  write_file("/run/arguments", std::to_string(argc) + argv[1]);
  daemon_signal_daemonize_complete();
  daemon_signal_daemonize_complete();  // nobody waits any more
  read_file("/run/end");
  return 5;
}

int abort_early(int, char**) {
  abort();
}

// Calls daemon_create in a process of its own. True when that fails with `text`.
bool fails(int (*daemon_main)(int, char**), const char* text) {
  return run_forked([daemon_main] {
           dup2(open("/run/stderr", O_CREAT | O_TRUNC | O_WRONLY, 0644), STDERR_FILENO);
           char name[] = "program", argument[] = "-a";
           char* argv[] = {name, argument, nullptr};
           return daemon_create("CLUS_SYNC", daemon_main, 2, argv);
         }) != 0 &&
         read_file("/run/stderr").find(text) != std::string::npos;
}

}  // namespace

TEST(Daemon, RunsOnceAndTellsWhyItCannotStart) {
  // The daemons become children of this process, so that it can wait for them.
  ASSERT_TRUE(getpid() == 1 || prctl(PR_SET_CHILD_SUBREAPER, 1) == 0);
  mkfifo("/run/end", 0600);
  mkdir(kPidFile, 0755);
  EXPECT_TRUE(fails(run_until_told, kPidFile));
  rmdir(kPidFile);
  EXPECT_TRUE(fails(abort_early, "before its start-up was complete"));
  waitpid(-1, nullptr, 0);
  // Of a crashed instance; the number has come to belong to another process: this one.
  write_file(kPidFile, std::to_string(getpid()) + "\n" + std::string(100, 'x'));
  ASSERT_FALSE(fails(run_until_told, "")) << read_file("/run/stderr");
  EXPECT_EQ(read_file("/run/arguments"), "2-a");
  EXPECT_EQ(mode_of("/run/made"), 0644);
  const std::string pid = read_file(kPidFile);
  EXPECT_TRUE(fails(run_until_told, "another instance is running"));
  EXPECT_EQ(read_file(kPidFile), pid);
  write_file("/run/end", "end");
  int status = 0;
  EXPECT_EQ(waitpid(std::stoi(pid), &status, 0), std::stoi(pid));
  EXPECT_EQ(WEXITSTATUS(status), 5);
  EXPECT_EQ(pid, std::to_string(std::stoi(pid)) + "\n");
  EXPECT_FALSE(exists(kPidFile));
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}
