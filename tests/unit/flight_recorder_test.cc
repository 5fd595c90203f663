#include "redundancy_health/frame/flight_recorder.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <time.h>

#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/log.h"
#include "tests/unit/daemon_support.h"

namespace {

using Lines = std::vector<std::string>;

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
  static Lines recorded() {
    Lines texts;
    const FlightRecorderEntry* entry;
    SIMPLEQ_FOREACH(entry, &g_flight_recorder.entries, next) {
      texts.push_back(strstr(entry->text, "|"));
    }
    EXPECT_EQ(g_flight_recorder.count, texts.size());
    return texts;
  }
};

void* log_one_line(void*) {
  private_log(7, "some_function", 4711, 1, "|%s %d", "text", 5);
  return nullptr;
}

TEST_F(LogTest, PrefixNamesTimeProcessThreadFunctionAndLine) {
  g_diag_params.max_log_size = 1000;
  pthread_t thread;
  ASSERT_EQ(Create_Thread(&thread, nullptr, log_one_line, nullptr, "cleanup_thread"), 0);
  pthread_join(thread, nullptr);
  const std::string text = read_file(kLogFile);
  const long long stamp = std::stoll(text);
  EXPECT_LE(time(nullptr) - stamp, 1000);
  char line[100];
  snprintf(line, sizeof(line), "%10lld (%5d-cleanup_thread) some_function:4711: |text 5\n", stamp,
           static_cast<int>(getpid()));
  EXPECT_EQ(text, line);
  EXPECT_EQ(SIMPLEQ_FIRST(&g_flight_recorder.entries)->text + std::string("\n"), text);
}

TEST_F(LogTest, OneOldFileIsKept) {
  const struct {
    int32_t max_log_size;
    size_t size;  // of the file before the line
    bool renamed;
  } cases[] = {{1000, 1000, false}, {1000, 1001, true}, {1, 2, true}, {-1, 5000, false}};
  for (const auto& c : cases) {
    const std::string before(c.size, 'x');
    write_file(kLogFile, before);
    write_file(kOldLogFile, "older");
    g_diag_params.max_log_size = c.max_log_size;
    LOG(6, "|a line");
    EXPECT_EQ(read_file(kOldLogFile), c.renamed ? before : "older") << c.max_log_size;
    EXPECT_EQ(read_file(kLogFile).substr(0, c.size) == before, !c.renamed) << c.max_log_size;
    EXPECT_NE(read_file(kLogFile).find(": |a line\n"), std::string::npos);
  }
}

// Anybody may put something in /tmp before the daemon does.
TEST_F(LogTest, WhatStandsAtTheLogFileNeitherHangsTheDaemonNorLeadsItElsewhere) {
  g_diag_params.max_log_size = 1000;
  const auto log_with_errno = [](const char* text) {
    errno = ENOTTY;
    LOG(4, "|%s", text);
    EXPECT_EQ(errno, ENOTTY) << text;
    remove(kLogFile);
  };
  write_file("/tmp/elsewhere", "kept");
  ASSERT_EQ(symlink("/tmp/elsewhere", kLogFile), 0);
  log_with_errno("link");
  ASSERT_EQ(mkfifo(kLogFile, 0666), 0);
  const int reader = open(kLogFile, O_RDONLY | O_NONBLOCK);
  log_with_errno("FIFO");
  char byte;
  EXPECT_EQ(read(reader, &byte, 1), 0) << "a stranger gets no line";
  close(reader);
  ASSERT_EQ(mkdir(kLogFile, 0755), 0);
  log_with_errno("directory");
  EXPECT_EQ(recorded(), Lines({"|link", "|FIFO", "|directory"}));
  EXPECT_EQ(read_file("/tmp/elsewhere"), "kept");
}

TEST_F(LogTest, ALateRequestMayLogWhileTheRecorderIsEmptied) {
  pthread_t thread;
  const auto log_lines = [](void*) -> void* {
    for (int i = 0; i < 1000; ++i)
      private_log(7, "f", 1, 1, "|late");
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, nullptr, log_lines, nullptr), 0);
  for (int i = 0; i < 1000; ++i)
    empty_flight_recorder();
  pthread_join(thread, nullptr);
  recorded();  // counts them
}

TEST_F(LogTest, TheFirstErrorDumpsWhatLedToItAndPauses) {
  const struct {
    int level;
    int dump;
    bool dumps;
  } cases[] = {{4, 1, false}, {3, 2, false}, {2, 1, true}, {3, 3, true}};
  for (const auto& c : cases) {
    g_flight_recorder.paused = 0;
    empty_flight_recorder();
    const size_t lines_before = log.lines().size();
    private_log(7, "f", 1, 1, "|before");
    private_log(c.level, "f", 2, c.dump, "|the line");
    EXPECT_EQ(g_flight_recorder.paused, c.dumps) << c.level << "/" << c.dump;
    private_log(3, "f", 3, 1, "|another error");
    private_log(3, "f", 4, 1, "|one more");
    EXPECT_EQ(recorded().back(), c.dumps ? "|the line" : "|another error");
    const Lines errors = logged(3);
    ASSERT_EQ(errors.size(), lines_before + 1 + recorded().size()) << "one dump";
    EXPECT_EQ(errors[lines_before], kBanner);
    EXPECT_EQ(errors[lines_before + 1], SIMPLEQ_FIRST(&g_flight_recorder.entries)->text);
  }
  EXPECT_FALSE(exists(kLogFile)) << "by default there is none";
}

TEST_F(LogTest, KeepsTheNewestLines) {
  for (int i = 0; i < 501; ++i)
    LOG(7, "|%d", i);
  EXPECT_EQ(recorded().at(0), "|1");
  EXPECT_EQ(recorded().at(499), "|500");
  g_flight_recorder.max_entries = 10;
  LOG(7, "|501");
  EXPECT_EQ(recorded().at(0), "|492");
  EXPECT_EQ(recorded().size(), 10u);
  g_flight_recorder.max_entries = 1;
  setenv("BREL_LOG_LEVEL", "6", 1);
  debug_log_to_stdout(1);
  LOG(7, "|trace");
  LOG_PLATFORM_ONLY(6, "|platform only");
  EXPECT_EQ(recorded(), Lines({"|trace"})) << "also what the platform drops";
  EXPECT_EQ(logged(6), Lines({"|platform only"}));
}

}  // namespace
