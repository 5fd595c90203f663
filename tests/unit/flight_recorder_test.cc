#include "redundancy_health/frame/flight_recorder.h"

#include "redundancy_health/frame/checked_lock.h"
#include "tests/unit/daemon_support.h"

namespace {

const char kLogFile[] = "/tmp/cluster_sync_daemon.log";
const char kOldLogFile[] = "/tmp/cluster_sync_daemon.log.0";

// Only this test uses the log files.
class LogTest : public DaemonTest {
 protected:
  LogTest() {
    g_flight_recorder.paused = 0;
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

  const Mount tmp_{"/tmp", "mode=1777"};
};

TEST_F(LogTest, OneOldFileIsKept) {
  for (const auto& [max_log_size, size, renamed] :
       {std::tuple(1000, 1000u, false), {1000, 1001u, true}, {1, 2u, true}, {-1, 5000u, false}}) {
    const std::string before(size, 'x');
    write_file(kLogFile, before);
    write_file(kOldLogFile, "older");
    g_diag_params.max_log_size = max_log_size;
    LOG(6, "|a line");
    EXPECT_EQ(read_file(kOldLogFile), renamed ? before : "older") << max_log_size;
    EXPECT_EQ(read_file(kLogFile).starts_with(before), !renamed) << max_log_size;
    EXPECT_TRUE(read_file(kLogFile).ends_with(": |a line\n"));
  }
}

// Any user may put something into /tmp before the daemon does.
TEST_F(LogTest, WhatStandsAtTheLogFileNeitherHangsTheDaemonNorLeadsItElsewhere) {
  g_diag_params.max_log_size = 1000;
  write_file("/tmp/elsewhere", "kept");
  fs::create_symlink("/tmp/elsewhere", kLogFile);
  LOG(4, "|link");
  remove(kLogFile);
  fs::create_symlink(kLogFile, kLogFile);
  LOG(4, "|circle");
  remove(kLogFile);
  ASSERT_EQ(mkfifo(kLogFile, 0666), 0);
  errno = ENOTTY;
  LOG(4, "|FIFO");
  EXPECT_EQ(errno, ENOTTY);
  const int reader = open(kLogFile, O_RDONLY | O_NONBLOCK);
  LOG(4, "|read FIFO");
  char byte;
  EXPECT_EQ(read(reader, &byte, 1), 0) << "a stranger gets no line";
  close(reader);
  EXPECT_EQ(recorded(), Lines({"|link", "|circle", "|FIFO", "|read FIFO"}));
  EXPECT_EQ(read_file("/tmp/elsewhere"), "kept");
}

// Such a file neither gets names of files that only root may list, nor costs the recorder a line.
TEST_F(LogTest, OnlyAFileOfTheDaemonsOwnIsWrittenTo) {
  g_diag_params.max_log_size = 1000;
  LOG(4, "|own");
  EXPECT_EQ(mode_of(kLogFile), 0600);
  chmod(kLogFile, 0644);  // from an earlier version
  LOG(4, "|own");
  EXPECT_EQ(mode_of(kLogFile), 0600);
  const std::string own = read_file(kLogFile);
  link(kLogFile, "/tmp/second link");
  LOG(4, "|linked");
  EXPECT_EQ(read_file(kLogFile), own);
  remove("/tmp/second link");
  truncate(kLogFile, 1001);
  mkdir(kOldLogFile, 0777);  // the log file cannot be renamed to it
  LOG(4, "|full");
  EXPECT_EQ(fs::file_size(kLogFile), 1001u);
  remove(kLogFile);
  write_file(kLogFile, "");
  truncate(kLogFile, 5000);
  chown(kLogFile, 4711, 4711);
  LOG(4, "|foreign");
  EXPECT_EQ(fs::file_size(kLogFile), 5000u);
  EXPECT_EQ(recorded(), Lines({"|own", "|own", "|linked", "|full", "|foreign"}));
}

TEST_F(LogTest, AByteOfANameMakesNoLineAndDrivesNoTerminal) {
  g_diag_params.max_log_size = 10000;
  const std::string long_name(600, 'n');
  LOG(4, "|a\n\x1b\xc2\x9b\xff\xc3\xa9");
  LOG(4, "|%s\n", long_name.c_str());
  const Lines lines = {"|a\\x0a\\x1b\\xc2\\x9b\\xff\xc3\xa9", "|" + long_name + "\\x0a"};
  EXPECT_EQ(recorded(), lines);
  for (const std::string& line : lines)
    EXPECT_NE(read_file(kLogFile).find(": " + line + "\n"), std::string::npos);
}

TEST_F(LogTest, TheFirstErrorDumpsWhatLedToItAndPauses) {
  LOG_NO_DUMP(3, "|expected");
  LOG(4, "|no error");
  LOG(3, "|error");
  LOG(3, "|another");
  EXPECT_EQ(recorded(), (Lines{"|expected", "|no error", "|error"}));
  const Lines errors = logged(3);
  ASSERT_EQ(errors.size(), 7u) << "three errors and one dump";
  EXPECT_EQ(errors[2],
            "===== CLUSTER SYNC DAEMON ERROR DETECTED. Flight recorder dump follows. =====");
  EXPECT_EQ(errors[3], SIMPLEQ_FIRST(&g_flight_recorder.entries)->text);
  EXPECT_EQ(errors[6], "|another");
}

TEST_F(LogTest, KeepsTheNewestLines) {
  for (int i = 0; i < 501; ++i)
    LOG(7, "|%d", i);
  EXPECT_EQ(recorded().size(), 500u);
  g_flight_recorder.max_entries = 2;
  LOG(7, "|last");
  EXPECT_EQ(recorded(), (Lines{"|500", "|last"}));
}

TEST_F(LogTest, ChecksQuoteTheirExpressionAndAFailedCloseEndsOnlyForABadDescriptor) {
  const char* missing = nullptr;
  EXPECT_ABORT("EXCEPTION: 4 . 3 = 7\n", CHECK_ZERO(4 + 3));
  EXPECT_ABORT("EXCEPTION: missing is NULL\n", CHECK_NOT_NULL(missing));
  EXPECT_ABORT("EXCEPTION: operator new is NULL\n",
               (install_out_of_memory_check(), std::get_new_handler()()));
  EXPECT_ABORT("EXCEPTION: close.-1. ended with EBADF\n", CHECK_CLOSE(close(-1)));
  Mutex mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
  EXPECT_ABORT("EXCEPTION: pthread_mutex_lock.&mutex. = 35\n", pthread_mutex_lock(&mutex);
               HOLD_MUTEX(mutex));
  EXPECT_ABORT("EXCEPTION: pthread_mutex_unlock.&mutex. = 1\n", HOLD_MUTEX(mutex);
               pthread_mutex_unlock(&mutex));
  errno = ENOSPC;
  CHECK_CLOSE_AS("fclose(f)", -1);
  EXPECT_EQ(logged(3), Lines({"fclose(f) = -1; errno=28"}));
}

}  // namespace
