#include "redundancy_health/frame/flight_recorder.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <time.h>

#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/log.h"
#include "tests/unit/daemon_support.h"
#include "tests/unit/failing_syscall.h"

namespace {

const char kLogFile[] = "/tmp/cluster_sync_daemon.log";
const char kOldLogFile[] = "/tmp/cluster_sync_daemon.log.0";
const char kBanner[] =
    "===== CLUSTER SYNC DAEMON ERROR DETECTED. Flight recorder dump follows. =====";

// The log files are this test's alone.
class LogTest : public DaemonTest {
 protected:
  LogTest() {
    EXPECT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777"), 0);
  }

  ~LogTest() override {
    umount2("/tmp", MNT_DETACH);
  }

  // The recorded lines, oldest first, without their prefixes.
  static std::vector<std::string> recorded() {
    std::vector<std::string> texts;
    const FlightRecorderEntry* entry;
    SIMPLEQ_FOREACH(entry, &g_flight_recorder.entries, next) {
      texts.push_back(strstr(entry->text, "|"));
    }
    EXPECT_EQ(g_flight_recorder.count, texts.size());
    return texts;
  }

  using Lines = std::vector<std::string>;
};

void* log_one_line(void*) {
  LOG(6, "|from a thread");
  return nullptr;
}

TEST_F(LogTest, PrefixNamesTimeProcessThreadFunctionAndLine) {
  g_diag_params.max_log_size = 1000;
  const time_t before = time(nullptr);
  pthread_t thread;
  ASSERT_EQ(Create_Thread(&thread, nullptr, log_one_line, nullptr, "cleanup_thread"), 0);
  pthread_join(thread, nullptr);
  private_log(7, "some_function", 4711, 1, "|%s %d", "text", 5);
  const time_t after = time(nullptr);

  const std::string text = read_file(kLogFile);
  const long long stamp = std::stoll(text);
  EXPECT_LE(before, stamp);
  EXPECT_LE(stamp, after);
  char first_line[100];
  const int length = snprintf(first_line, sizeof(first_line), "%10lld (%5d-cleanup_thread) ", stamp,
                              static_cast<int>(getpid()));
  EXPECT_EQ(text.substr(0, static_cast<size_t>(length)), first_line);
  EXPECT_NE(text.find(") log_one_line:"), std::string::npos);
  EXPECT_NE(text.find(": |from a thread\n"), std::string::npos);
  const std::string second_line = text.substr(text.find('\n') + 1);
  EXPECT_EQ(second_line.substr(second_line.find(')')), ") some_function:4711: |text 5\n");
  EXPECT_EQ(SIMPLEQ_NEXT(SIMPLEQ_FIRST(&g_flight_recorder.entries), next)->text + std::string("\n"),
            second_line);
  EXPECT_EQ(logged(-1), Lines({"|from a thread"})) << "private_log is not for the platform log";
}

TEST_F(LogTest, OneOldFileIsKept) {
  const struct {
    int32_t max_log_size;
    size_t size;  // of the file before the line
    bool renamed;
  } cases[] = {{1000, 1000, false}, {1000, 1001, true},       {1, 2, true},
               {-1, 5000, false},   {-2147483648, 10, false}, {2147483647, 9000, false}};
  for (const auto& c : cases) {
    const std::string before(c.size, 'x');
    write_file(kLogFile, before);
    write_file(kOldLogFile, "older");
    g_diag_params.max_log_size = c.max_log_size;
    LOG(6, "|a line");
    EXPECT_EQ(read_file(kOldLogFile), c.renamed ? before : "older") << c.max_log_size;
    const std::string text = read_file(kLogFile);
    EXPECT_EQ(text.substr(0, c.size) == before, !c.renamed) << c.max_log_size;
    EXPECT_EQ(text.substr(text.find('|')), "|a line\n");
  }
  g_diag_params.max_log_size = 0;
  unlink(kLogFile);
  LOG(6, "|a line");
  EXPECT_FALSE(exists(kLogFile));
}

TEST_F(LogTest, AFileThatCannotBeWrittenLosesTheLineAndKeepsErrno) {
  g_diag_params.max_log_size = 1000;
  const auto log_with_errno = [](const char* text) {
    errno = ENOTTY;
    LOG(4, "|%s", text);
    EXPECT_EQ(errno, ENOTTY) << text;
  };
  ASSERT_EQ(symlink(kLogFile, kLogFile), 0);
  log_with_errno("it cannot be looked at");
  unlink(kLogFile);
  write_file(kLogFile, std::string(2000, 'x'));
  mkdir(kOldLogFile, 0755);
  log_with_errno("it cannot be renamed");
  unlink(kLogFile);
  EXPECT_EQ(recorded(), Lines());
  mkdir(kLogFile, 0755);
  log_with_errno("it cannot be opened");
  EXPECT_EQ(recorded(), Lines({"|it cannot be opened"}));
  EXPECT_EQ(logged(4).size(), 3u) << "the platform log has them all";
}

// Anybody may put something in /tmp before the daemon does.
TEST_F(LogTest, WhatIsPlantedAtTheLogFileNeitherHangsTheDaemonNorLeadsItElsewhere) {
  g_diag_params.max_log_size = 1000;
  write_file("/tmp/elsewhere", "kept");
  ASSERT_EQ(symlink("/tmp/elsewhere", kLogFile), 0);
  LOG(4, "|through a link");
  EXPECT_EQ(read_file("/tmp/elsewhere"), "kept");
  unlink(kLogFile);
  ASSERT_EQ(mkfifo(kLogFile, 0666), 0);
  LOG(4, "|into a FIFO");
  EXPECT_EQ(recorded(), Lines({"|through a link", "|into a FIFO"}));
}

TEST_F(LogTest, TheFirstErrorDumpsWhatLedToItAndPauses) {
  const struct {
    int level;
    int dump;
    bool dumps;
  } cases[] = {{4, 1, false}, {3, 0, false}, {3, 2, false}, {7, 1, false},
               {2, 1, true},  {3, 1, true},  {3, 3, true}};
  for (const auto& c : cases) {
    g_flight_recorder.paused = 0;
    empty_flight_recorder();
    const size_t lines_before = log.lines().size();
    private_log(7, "f", 1, 1, "|before");
    private_log(c.level, "f", 2, c.dump, "|the line");
    private_log(3, "f", 3, 1, "|another error");
    const std::string label = std::to_string(c.level) + "/" + std::to_string(c.dump);
    if (!c.dumps) {  // then the second error does
      EXPECT_EQ(recorded(), Lines({"|before", "|the line", "|another error"})) << label;
      continue;
    }
    EXPECT_EQ(recorded(), Lines({"|before", "|the line"})) << label;
    EXPECT_EQ(g_flight_recorder.paused, 1);
    const std::vector<LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), lines_before + 3) << label;
    for (size_t i = lines_before; i < lines.size(); ++i)
      EXPECT_EQ(lines[i].level, 3);
    EXPECT_EQ(lines[lines_before].text, kBanner);
    EXPECT_EQ(lines[lines_before + 1].function, "dump_flight_recorder");
    EXPECT_EQ(lines[lines_before + 1].text, SIMPLEQ_FIRST(&g_flight_recorder.entries)->text);
    EXPECT_EQ(lines[lines_before + 2].text.substr(lines[lines_before + 2].text.find('|')),
              "|the line");
  }
}

TEST_F(LogTest, KeepsTheNewestLines) {
  for (int i = 0; i < 501; ++i)
    LOG(7, "|%d", i);
  EXPECT_EQ(recorded().at(0), "|1");
  EXPECT_EQ(recorded().at(499), "|500");
  g_flight_recorder.max_entries = 10;
  EXPECT_EQ(g_flight_recorder.count, 500u);
  LOG(7, "|501");
  EXPECT_EQ(recorded().at(0), "|492");
  EXPECT_EQ(recorded().size(), 10u);
  g_flight_recorder.max_entries = 0;
  LOG(7, "|502");
  EXPECT_EQ(recorded(), Lines());
  LOG(3, "|error");
  EXPECT_EQ(logged(3), Lines({"|error", kBanner}));
  EXPECT_EQ(g_flight_recorder.paused, 1);
  g_flight_recorder.max_entries = 500;
  LOG(3, "|more");
  EXPECT_EQ(recorded(), Lines());

  g_flight_recorder.paused = 0;
  g_flight_recorder.max_entries = 0;
  g_flight_recorder.count = 1;
  EXPECT_ABORT("EXCEPTION: SIMPLEQ_EMPTY(&g_flight_recorder.entries) = 1", LOG(7, "|x"));
}

TEST_F(LogTest, LinesThatThePlatformDropsAreStillRecorded) {
  setenv("BREL_LOG_LEVEL", "6", 1);
  debug_log_to_stdout(1);
  LOG(7, "|trace");
  LOG_PLATFORM_ONLY(6, "|platform only");
  EXPECT_EQ(recorded(), Lines({"|trace"}));
  EXPECT_EQ(logged(-1), Lines({"|platform only"}));
}

TEST_F(LogTest, UptimeIsUnknownWithoutSysinfo) {
  EXPECT_GT(get_uptime(), 0);
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        _exit(fail_system_call(SYS_sysinfo, kAnyArgument, EPERM) && get_uptime() == -1 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "Call to sysinfo\\(\\) failed: Operation not permitted\n");
}

}  // namespace
