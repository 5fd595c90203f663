#include <signal.h>
#include <sys/prctl.h>

#include "platform/daemon.h"
#include "platform/em.h"
#include "platform/event.h"
#include "platform/storage.h"
#include "platform/util.h"
#include "tests/unit/platform_support.h"

namespace {

constexpr char kPidFile[] = "/var/run/CLUS_SYNC.pid";

int run_until_told(int, char**) {
  sigset_t blocked;
  sigprocmask(SIG_BLOCK, nullptr, &blocked);
  std::ofstream("/run/made") << fs::current_path() << fs::read_symlink("/proc/self/fd/0")
                             << fs::read_symlink("/proc/self/fd/2") << (getsid(0) == getpid())
                             << (signal(SIGHUP, SIG_DFL) == SIG_IGN)
                             << sigismember(&blocked, SIGTERM);
  daemon_signal_daemonize_complete();
  daemon_signal_daemonize_complete();  // nobody waits for it any more
  read_file("/run/end");
  return 5;
}

int end_early(int, char**) {
  return 0;
}

// Calls daemon_create in a separate process. Returns its error output.
std::string failure_of(int (*daemon_main)(int, char**)) {
  const bool failed = run_forked([daemon_main] {
    dup2(open("/run/stderr", O_CREAT | O_TRUNC | O_WRONLY, 0644), STDERR_FILENO);
    signal(SIGHUP, SIG_IGN);
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    return daemon_create("CLUS_SYNC", daemon_main, 0, nullptr);
  });
  return failed ? read_file("/run/stderr") : "";
}

}  // namespace

TEST(Daemon, RunsOnceAndTellsWhyItCannotStart) {
  // The daemons become children of this process, so that it can wait for them.
  ASSERT_TRUE(getpid() == 1 || prctl(PR_SET_CHILD_SUBREAPER, 1) == 0);
  mkfifo("/run/end", 0600);
  EXPECT_EQ(failure_of(end_early),
            "CLUS_SYNC: ended before its start-up was complete, see the system log\n");
  waitpid(-1, nullptr, 0);
  // Left by a crashed instance; the process id now belongs to another process: this one.
  write_file(kPidFile, std::to_string(getpid()) + "\n" + std::string(100, 'x'));
  ASSERT_EQ(failure_of(run_until_told), "");
  EXPECT_EQ(mode_of("/run/made"), 0644);
  EXPECT_EQ(read_file("/run/made"), "\"/\"\"/dev/null\"\"/dev/null\"000") << "it is detached";
  EXPECT_EQ(mode_of(kPidFile), 0600) << "nobody else can hold its lock";
  const std::string pid = read_file(kPidFile);
  EXPECT_EQ(failure_of(run_until_told),
            std::string("CLUS_SYNC: ") + kPidFile + ": another instance is running\n");
  write_file("/run/end", "end");
  int status = 0;
  EXPECT_EQ(waitpid(std::stoi(pid), &status, 0), std::stoi(pid));
  EXPECT_EQ(WEXITSTATUS(status), 5);
  EXPECT_FALSE(exists(kPidFile));
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST(Cleanup, RemovesOldTemporariesOfTheRootsOnly) {
  const std::string root = "/mnt/part.persistent/replicated_by_active_em/";
  const std::string locked = "/mnt/part.persistent/replicated_by_this_em/";
  const std::string outside = "/mnt/outside/";
  const char* const script[] = {CLEAN_UP_SCRIPT, nullptr};
  const Mount persistent("/mnt/part.persistent"), read_only(locked);
  for (const std::string& directory : {root, outside, root + "deep", root + "TempUpdate_directory"})
    mkdir(directory.c_str(), 0755);
  // Deeper than a walk that keeps a directory open at each level could go; with other names before
  // and after it.
  mkdir((root + "before").c_str(), 0755);
  ASSERT_EQ(run_forked([&] {
              for (int level = 0; level < 3000; ++level) {
                if (mkdir(level == 0 ? (root + "well").c_str() : "d", 0755) != 0 ||
                    chdir(level == 0 ? (root + "well").c_str() : "d") != 0)
                  return 1;
              }
              return 0;
            }),
            0);
  mkdir((root + "behind").c_str(), 0755);
  fs::create_symlink(outside + "TempUpdate_d", root + "TempUpdate_link");
  fs::create_symlink(outside, root + "link");
  const std::tuple<std::string, int, bool> cases[] = {
      {root + "TempUpdate_\xff\n", 3700, true},   {root + "deep/TempUpdate_b", 86400, true},
      {root + "before/TempUpdate_a", 3700, true}, {root + "behind/TempUpdate_a", 3700, true},
      {root + "TempUpdate_young", 3000, false},   {root + "data_TempUpdate_a", 3700, false},
      {outside + "TempUpdate_d", 3700, false},    {root + "TempUpdate_link", 3700, false},
      {locked + "TempUpdate_e", 3700, false},     {root + "TempUpdate_directory", 3700, false}};
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

TEST(Storage, ReplacesTheWholeFileWithAFixedModeOrNotAtAll) {
  const Mount disk("/mnt/disk", "size=64k");
  // At first a symlink, which must be replaced and not followed.
  ASSERT_EQ(symlink("/mnt/linked_file", "/mnt/disk/file"), 0);
  StorageHandle* handle = nullptr;
  for (const int mode : {0600, 0644}) {
    write_file("/mnt/disk/file", "old content, longer than the new one", 0666);
    const int flags = kStorageOpenWrite | (mode == 0600 ? kStorageOpenRestricted : 0);
    ASSERT_EQ(storage_open(7, "/mnt/disk/file", flags, &handle), 0);
    EXPECT_EQ(storage_write_all(handle, "new ", 4) + storage_write_all(handle, "text", 4), 0);
    EXPECT_TRUE(read_file("/mnt/disk/file").starts_with("old"));
    EXPECT_TRUE(names_in("/mnt/disk").begin()->starts_with("TempUpdate_"));
    EXPECT_EQ(storage_close(handle), 0);
    EXPECT_EQ(read_file("/mnt/disk/file"), "new text");
    EXPECT_EQ(mode_of("/mnt/disk/file"), mode);
  }
  EXPECT_TRUE(read_file("/mnt/linked_file").starts_with("old"));
  ASSERT_EQ(storage_open(7, "/mnt/disk/file", kStorageOpenWrite, &handle), 0);
  EXPECT_NE(storage_write_all(handle, std::string(1 << 20, 'x').data(), 1 << 20), 0);
  EXPECT_NE(storage_close(handle), 0);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(read_file("/mnt/disk/file"), "new text");
  EXPECT_EQ(names_in("/mnt/disk"), std::set<std::string>{"file"});
}

// The alarm must also work on a full file system, which may be the reason for the alarm.
TEST(Event, IsReplacedWithoutRoomForATemporary) {
  const Mount full("/var/run/em", "size=16k");
  const std::string record = "/var/run/em/events/0x80000702", healthy(1036, 'h'), ill(1036, 'i');
  ASSERT_EQ(event_send(0x80000702, healthy.data(), 1036), 0);
  struct stat first, second;
  stat(record.c_str(), &first);
  EXPECT_EQ(event_send(0x80000702, healthy.data(), 1036), 0);
  stat(record.c_str(), &second);
  EXPECT_EQ(second.st_ino, first.st_ino) << "what is there already is not written again";
  write_file("/var/run/em/filler", std::string(65536, 'x'));
  EXPECT_EQ(event_send(0x80000702, ill.data(), 1036), 0);
  EXPECT_EQ(read_file(record), ill);
  EXPECT_NE(event_send(0x80000702, ill.data(), 1035), 0) << "a record of another size stays whole";
  EXPECT_EQ(read_file(record), ill);
  EXPECT_EQ(names_in("/var/run/em/events").size(), 1u);
}

TEST(Em, ANumberThatIsNoneIsQuoted) {
  mkdir("/var/run/em", 0755);
  const std::tuple<const char*, uint32_t, const char*> rows[] = {
      {nullptr, 2, ""},          {"1\n", 2, ""},    {" 2 \n", 1, ""},        {"", 2, "''"},
      {"banana", 2, "'banana'"}, {"12", 2, "'12'"}, {"2\n2", 2, "'2\\x0a2'"}};
  for (const auto& [text, mate, quoted] : rows) {
    SCOPED_TRACE(text != nullptr ? text : "missing");
    if (text != nullptr) write_file("/var/run/em/number", text);
    EXPECT_EQ(get_my_mate_em_num(), mate);
    debug_log_to_stdout(1);
    testing::internal::CaptureStdout();
    check_em_number();
    debug_log_to_stdout(0);
    const std::string line = testing::internal::GetCapturedStdout();
    EXPECT_EQ(line.starts_with("<3> "), *quoted != '\0');
    EXPECT_NE(line.find(quoted), std::string::npos) << line;
  }
}

TEST(Log, CallIsOneLineAtOrBelowTheThresholdAndOutlivesItsReader) {
  for (const auto& [value, threshold] : {std::pair("3", 3), {"99", 7}, {"-4", 0}, {"7x", 6}}) {
    setenv("BREL_LOG_LEVEL", value, 1);
    debug_log_to_stdout(1);
    testing::internal::CaptureStdout();
    DbgOutput("file.cc", 42, "f", threshold, "a\n\x1b[2J\x7f\xc3\xa9\xc2\x9b\xff%d", 7);
    // Formatting this argument would crash.
    DbgOutput("file.cc", 1, "f", threshold + 1, "%s", reinterpret_cast<const char*>(1));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "<" + std::to_string(threshold) +
                  "> f:42: a\\x0a\\x1b[2J\\x7f\xc3\xa9\\xc2\\x9b\\xff" + "7\n");
  }
  debug_log_to_stdout(0);
  EXPECT_EQ(run_forked([] {
              int ends[2];
              if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) return 1;
              close(ends[0]);
              debug_log_to_stdout(1);
              errno = EDOM;
              DbgOutput("file.cc", 1, "f", 3, "text");
              return errno == EDOM ? 7 : 2;
            }),
            7);
}
