#include "platform/util.h"

#include <sys/socket.h>
#include <sys/un.h>

#include "platform_support.h"

namespace {

std::string output_of(const std::function<void()>& action) {
  debug_log_to_stdout(1);
  testing::internal::CaptureStdout();
  action();
  debug_log_to_stdout(0);
  return testing::internal::GetCapturedStdout();
}

TEST(Log, CallIsOneLineAndKeepsErrno) {
  EXPECT_EQ(output_of([] { DbgOutput("file.cc", 42, "f", 4, "a\n\x1b[2J\x7f\xc3\xa9%d", 7); }),
            "<4> f:42: a\\x0a\\x1b[2J\\x7f\xc3\xa9"
            "7\n");
  output_of([] {
    close(STDOUT_FILENO);
    errno = EDOM;
    DbgOutput("file.cc", 1, "f", 3, "text");
    EXPECT_EQ(errno, EDOM);
  });
}

TEST(Log, OutlivesTheReaderOfItsOutput) {
  const auto log_to_closed_pipe = [] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) return 1;
    close(ends[0]);
    debug_log_to_stdout(1);
    DbgOutput("file.cc", 1, "f", 3, "text");
    return 7;
  };
  EXPECT_EQ(run_forked(log_to_closed_pipe), 7);
}

TEST(Log, ThresholdComesFromTheEnvironment) {
  const std::pair<const char*, int> cases[] = {{"3", 3},  {"0", 0}, {"99", 7},   {"-4", 0},
                                               {"7x", 6}, {"", 6},  {nullptr, 6}};
  for (const auto& [value, threshold] : cases) {
    value != nullptr ? setenv("BREL_LOG_LEVEL", value, 1) : unsetenv("BREL_LOG_LEVEL");
    const auto log_at_and_above = [level = threshold] {
      DbgOutput("file.cc", 1, "f", level, "text");
      // Formatting this argument would end the process.
      DbgOutput("file.cc", 1, "f", level + 1, "%s", reinterpret_cast<const char*>(1));
    };
    EXPECT_EQ(output_of(log_at_and_above), "<" + std::to_string(threshold) + "> f:1: text\n");
    EXPECT_TRUE(DbgOutputEnabled(threshold) && !DbgOutputEnabled(threshold + 1));
  }
}

TEST(Log, GoesToSyslogAsTheDaemon) {
  const Mount dev("/dev");
  const sockaddr_un address = {AF_UNIX, "/dev/log"};
  const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  ASSERT_EQ(bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  DbgOutput("file.cc", 9, "f", 3, "two\nlines");
  std::string packet(500, '\0');
  const ssize_t size = recv(log, packet.data(), packet.size(), 0);
  packet.resize(size > 0 ? static_cast<size_t>(size) : 0);
  close(log);
  // <facility daemon (3) * 8 + level 3>, the time, the ident with the process id, the line.
  EXPECT_TRUE(packet.starts_with("<27>")) << packet;
  EXPECT_TRUE(packet.ends_with(" CLUS_SYNC[" + std::to_string(getpid()) + "]: f:9: two\\x0alines"))
      << packet;
}

void* check_thread(void* expect_roomy) {
  char name[50], cut[] = "########";
  GetThreadName(name, sizeof name);
  EXPECT_STREQ(name, "name_of_16_byte");
  pthread_getname_np(pthread_self(), name, sizeof name);
  EXPECT_STREQ(name, "name_of_16_byte");
  GetThreadName(cut, 5);
  EXPECT_EQ(std::string(cut, sizeof cut), std::string("name\0###", sizeof cut));
  pthread_attr_t attributes;
  size_t stack_size = 0;
  pthread_getattr_np(pthread_self(), &attributes);
  pthread_attr_getstacksize(&attributes, &stack_size);
  pthread_attr_destroy(&attributes);
  EXPECT_EQ(stack_size >= size_t{4} << 20, expect_roomy != nullptr);
  return nullptr;
}

TEST(Thread, HasItsNameAndARoomyStackOrTheCallersOwn) {
  pthread_attr_t small;
  pthread_attr_init(&small);
  pthread_attr_setstacksize(&small, size_t{1} << 20);
  for (pthread_attr_t* roomy : std::vector<pthread_attr_t*>{&small, nullptr}) {
    pthread_t thread;
    const pthread_attr_t* attributes = roomy != nullptr ? nullptr : &small;
    ASSERT_EQ(Create_Thread(&thread, attributes, check_thread, roomy, "name_of_16_bytes"), 0);
    pthread_join(thread, nullptr);
  }
}

TEST(ExecuteNormal, ReportsHowTheProgramEnded) {
  write_file("/run/plain_file", "text");
  ASSERT_EQ(dup2(STDERR_FILENO, 99), 99);
  const std::pair<std::vector<const char*>, int> cases[] = {
      {{"/bin/sh", "-c", "test ! -e /proc/self/fd/99", nullptr}, 0},
      {{"/bin/sh", "-c", "exit 3", nullptr}, 3},
      {{"/bin/sh", "-c", "kill -TERM $$", nullptr}, 128 + 15},
      {{"/run/missing", nullptr}, 127},
      {{"/run/plain_file", nullptr}, 127},
      {{nullptr}, 127}};
  for (const auto& [argv, status] : cases)
    EXPECT_EQ(execute_normal(argv.data()), status);
  close(99);
}

}  // namespace
