#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>

#include <functional>
#include <vector>

#include "platform/util.h"
#include "platform_support.h"

namespace {

// Runs `action` with a packet socket as standard output. Returns what each write(2) wrote.
std::vector<std::string> writes_of(const std::function<void()>& action) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
  fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  dup2(ends[1], STDOUT_FILENO);
  action();
  dup2(saved, STDOUT_FILENO);

  std::vector<std::string> writes;
  std::string packet(200000, '\0');
  ssize_t size;
  while ((size = recv(ends[0], packet.data(), packet.size(), MSG_DONTWAIT)) > 0)
    writes.push_back(packet.substr(0, static_cast<size_t>(size)));
  for (const int fd : {saved, ends[0], ends[1]})
    close(fd);
  return writes;
}

class LogTest : public testing::Test {
 protected:
  void SetUp() override {
    set_level(nullptr);
  }

  void TearDown() override {
    unsetenv("BREL_LOG_LEVEL");
    debug_log_to_stdout(0);
  }

  static void set_level(const char* text) {
    if (text != nullptr)
      setenv("BREL_LOG_LEVEL", text, 1);
    else
      unsetenv("BREL_LOG_LEVEL");
    debug_log_to_stdout(1);
  }
};

TEST_F(LogTest, EachCallIsOneWriteOfOneLine) {
  const std::string large(100000, 'x');
  const struct {
    std::string text;
    std::string shown;
  } cases[] = {
      {"plain", "plain"},
      {"", ""},
      {"a\nb\rc\td", "a\\x0ab\\x0dc\\x09d"},
      {"\x1b[2J\x7f", "\\x1b[2J\\x7f"},
      {"caf\xc3\xa9 \xff", "caf\xc3\xa9 \xff"},
      {large, large},
  };
  for (const auto& c : cases) {
    const auto writes =
        writes_of([&c] { DbgOutput("dir/file.cc", 42, "some_function", 4, "%s", c.text.c_str()); });
    EXPECT_EQ(writes, std::vector{"<4> some_function:42: " + c.shown + "\n"});
  }
  debug_log_to_stdout(0);
  EXPECT_TRUE(writes_of([] { DbgOutput("file.cc", 1, "f", 3, "silent"); }).empty());
}

TEST_F(LogTest, ThresholdComesFromTheEnvironment) {
  const struct {
    const char* value;
    int threshold;
  } cases[] = {{nullptr, 6}, {"7", 7}, {"3", 3},  {"0", 0},  {"99", 7},
               {"-4", 0},    {"", 6},  {"x7", 6}, {"7x", 6}, {"99999999999999999999", 7}};
  for (const auto& c : cases) {
    set_level(c.value);
    for (int level = 0; level <= 7; ++level) {
      const auto writes = writes_of([level] { DbgOutput("file.cc", 1, "f", level, "text"); });
      EXPECT_EQ(writes.size(), level <= c.threshold ? 1u : 0u)
          << (c.value ? c.value : "unset") << " " << level;
      EXPECT_EQ(DbgOutputEnabled(level), level <= c.threshold);
    }
  }
}

TEST_F(LogTest, DroppedLineIsNotFormatted) {
  // The argument cannot be read: formatting it would end the process.
  DbgOutput("file.cc", 1, "f", 7, "%s", reinterpret_cast<const char*>(1));
}

TEST_F(LogTest, ErrnoIsKeptAlsoWhenNothingCanBeWritten) {
  int after = 0;
  const auto writes = writes_of([&after] {
    errno = EDOM;
    DbgOutput("file.cc", 1, "f", 3, "text");
    after = errno;
  });
  EXPECT_EQ(after, EDOM);
  EXPECT_EQ(writes.size(), 1u);
  writes_of([&after] {
    close(STDOUT_FILENO);
    errno = EDOM;
    DbgOutput("file.cc", 1, "f", 3, "text");
    after = errno;
  });
  EXPECT_EQ(after, EDOM);
}

// Runs in a process of its own, with a /dev that holds only the log socket. Returns what arrived.
void log_into_private_syslog(int report_fd) {
  const sockaddr_un address = {AF_UNIX, "/dev/log"};
  const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  if (unshare(CLONE_NEWNS) != 0 || mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0 ||
      bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return;
  DbgOutput("file.cc", 7, "f", 7, "dropped");
  DbgOutput("file.cc", 9, "f", 3, "two\nlines");
  char packet[500];
  ssize_t size;
  while ((size = recv(log, packet, sizeof packet, 0)) > 0) {
    if (write(report_fd, packet, static_cast<size_t>(size)) != size) return;
  }
}

TEST(Log, GoesToSyslogAsTheDaemon) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    log_into_private_syslog(ends[1]);
    _exit(0);
  }
  close(ends[1]);
  std::string text(1000, '\0');
  const ssize_t size = read(ends[0], text.data(), text.size());
  text.resize(size > 0 ? static_cast<size_t>(size) : 0);
  close(ends[0]);
  waitpid(pid, nullptr, 0);
  // <facility daemon (3) * 8 + level 3>, the time, the ident with the process id, the line.
  EXPECT_EQ(text.substr(0, 4), "<27>");
  EXPECT_NE(text.find(" CLUS_SYNC[" + std::to_string(pid) + "]: f:9: two\\x0alines"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("dropped"), std::string::npos);
}

struct ThreadFacts {
  std::string name;
  std::string kernel_name;
  size_t stack_size;
  int detach_state;
};

void* record_thread_facts(void* argument) {
  ThreadFacts* facts = static_cast<ThreadFacts*>(argument);
  char name[50];
  GetThreadName(name, sizeof name);
  facts->name = name;
  pthread_getname_np(pthread_self(), name, sizeof name);
  facts->kernel_name = name;
  pthread_attr_t attributes;
  pthread_getattr_np(pthread_self(), &attributes);
  pthread_attr_getstacksize(&attributes, &facts->stack_size);
  pthread_attr_destroy(&attributes);
  return facts;
}

TEST(Thread, HasItsNameAndARoomyStack) {
  for (const std::string name : {"sync_thread", "a_name_longer_than_the_kernel_keeps"}) {
    ThreadFacts facts;
    pthread_t thread;
    ASSERT_EQ(Create_Thread(&thread, nullptr, record_thread_facts, &facts, name.c_str()), 0);
    void* returned;
    ASSERT_EQ(pthread_join(thread, &returned), 0);
    EXPECT_EQ(returned, &facts);
    EXPECT_EQ(facts.name, name.substr(0, 15));
    EXPECT_EQ(facts.kernel_name, facts.name);
    EXPECT_GE(facts.stack_size, size_t{4} << 20);
  }
}

TEST(Thread, AttributesOfTheCallerHold) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, size_t{1} << 20);
  ThreadFacts facts;
  pthread_t thread;
  ASSERT_EQ(Create_Thread(&thread, &attributes, record_thread_facts, &facts, "small"), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  EXPECT_LT(facts.stack_size, size_t{4} << 20);
}

TEST(Thread, NameIsCutToTheBuffer) {
  pthread_setname_np(pthread_self(), "main_name");
  const struct {
    size_t size;
    std::string expected;
  } cases[] = {{50, "main_name"}, {10, "main_name"}, {9, "main_nam"}, {1, ""}};
  for (const auto& c : cases) {
    char buffer[51];
    memset(buffer, '#', sizeof buffer);
    GetThreadName(buffer, c.size);
    EXPECT_EQ(std::string(buffer), c.expected);
    EXPECT_EQ(buffer[c.size], '#');
  }
  char untouched = '#';
  GetThreadName(&untouched, 0);
  EXPECT_EQ(untouched, '#');
}

TEST(Cond, TimedWaitRunsOnTheMonotonicClock) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond;
  ASSERT_EQ(_brel_cond_init(&cond), 0);
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += 1;
  pthread_mutex_lock(&mutex);
  // By the wall clock this time is decades ago, and the wait would end at once.
  EXPECT_EQ(pthread_cond_timedwait(&cond, &mutex, &deadline), ETIMEDOUT);
  pthread_mutex_unlock(&mutex);
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  EXPECT_GE(now.tv_sec, deadline.tv_sec);
  pthread_cond_destroy(&cond);
}

TEST(ExecuteNormal, ReportsHowTheProgramEnded) {
  write_file("/run/plain_file", "text", 0644);
  const struct {
    const char* const argv[4];
    int expected;
  } cases[] = {{{"/bin/true"}, 0},
               {{"/bin/sh", "-c", "exit 3"}, 3},
               {{"/bin/sh", "-c", "kill -TERM $$"}, 128 + 15},
               {{"/run/missing"}, 127},
               {{"/run/plain_file"}, 127},
               {{nullptr}, 127}};
  for (const auto& c : cases)
    EXPECT_EQ(execute_normal(c.argv), c.expected) << (c.argv[0] ? c.argv[0] : "(empty)");
}

TEST(ExecuteNormal, ProgramGetsNoDescriptorOfOurs) {
  const int fd = open("/dev/null", O_RDONLY);  // without O_CLOEXEC on purpose
  const std::string script = "test ! -e /proc/self/fd/" + std::to_string(fd);
  const char* const argv[] = {"/bin/sh", "-c", script.c_str(), nullptr};
  EXPECT_EQ(execute_normal(argv), 0);
  close(fd);
}

}  // namespace
