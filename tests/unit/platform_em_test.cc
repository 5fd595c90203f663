#include "platform/em.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include "platform/event.h"
#include "platform_support.h"

namespace {

TEST(Em, ActiveWhileTheFileExists) {
  mkdir("/var/run/em", 0755);
  EXPECT_FALSE(this_em_is_active());
  write_file("/var/run/em/active", "");
  EXPECT_TRUE(this_em_is_active());
  unlink("/var/run/em/active");
  EXPECT_FALSE(this_em_is_active());
}

TEST(Em, MateIsTheOtherNumber) {
  mkdir("/var/run/em", 0755);
  unlink("/var/run/em/number");
  EXPECT_EQ(get_my_mate_em_num(), 2u);
  const struct {
    const char* content;
    uint32_t mate;
  } cases[] = {{"1\n", 2}, {"2\n", 1}, {"2", 1}, {" 2 \n", 1}, {"", 2}, {"two", 2}, {"-1", 2}};
  for (const auto& c : cases) {
    write_file("/var/run/em/number", c.content);
    EXPECT_EQ(get_my_mate_em_num(), c.mate) << c.content;
  }
  unlink("/var/run/em/number");
}

// The program lives in /etc, which an empty file system covers meanwhile.
class UseReplicatedDataTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mount("tmpfs", "/etc", "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(mkdir("/etc/em", 0755), 0);
  }

  void TearDown() override {
    umount2("/etc", MNT_DETACH);
  }

  const std::string program_ = "/etc/em/use_replicated_data";
};

TEST_F(UseReplicatedDataTest, NothingToStartIsNoFailure) {
  EXPECT_EQ(use_replicated_data(5, 0), 0);
  write_file(program_, "#!/bin/sh\ntouch /run/started\n", 0644);
  EXPECT_EQ(use_replicated_data(5, 0), 0);
  unlink(program_.c_str());
  mkdir(program_.c_str(), 0755);
  EXPECT_EQ(use_replicated_data(5, 0), 0);
  EXPECT_FALSE(exists("/run/started"));
}

TEST_F(UseReplicatedDataTest, UnstartableProgramIsAFailure) {
  write_file(program_, "#!/missing/interpreter\n", 0755);
  EXPECT_NE(use_replicated_data(5, 0), 0);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(UseReplicatedDataTest, RunsDetachedWithTheIdAndWithoutOurDescriptors) {
  const int fd = open("/dev/null", O_RDONLY);  // without O_CLOEXEC on purpose
  ASSERT_EQ(mkfifo("/run/go", 0600), 0);
  ASSERT_EQ(mkfifo("/run/report", 0600), 0);
  // It cannot end before this test lets it, so the call returns only if it does not wait.
  write_file(program_,
             "#!/bin/sh\nread word < /run/go\nread pid comm state ppid pgrp session rest < "
             "/proc/self/stat\n[ -e /proc/$$/fd/" +
                 std::to_string(fd) +
                 " ] && open=yes || open=no\necho \"$#:$1:$open:$ppid:$session\" > /run/report\n",
             0755);
  ASSERT_EQ(use_replicated_data(4000000000u, 1), 0);
  close(fd);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
  write_file("/run/go", "go\n");
  const std::string report = read_file("/run/report");
  const std::string expected = "1:4000000000:no:";
  EXPECT_EQ(report.substr(0, expected.size()), expected);
  const int session = std::stoi(report.substr(report.rfind(':') + 1));
  EXPECT_NE(session, getsid(0));
}

TEST(Event, LastRecordIsReadable) {
  const std::string path = "/var/run/em/events/0x80000702";
  for (const std::string& record : {std::string(1036, '\x01'), std::string("\0\xff", 2)}) {
    ASSERT_EQ(event_send(0x80000702, record.data(), static_cast<uint32_t>(record.size())), 0);
    EXPECT_EQ(read_file(path), record);
    EXPECT_EQ(mode_of(path), 0644);
  }
  ASSERT_EQ(event_send(0x1F, "x", 1), 0);
  EXPECT_EQ(names_in("/var/run/em/events"), (std::set<std::string>{"0x0000001f", "0x80000702"}));
}

TEST(Event, FailureIsReported) {
  mkdir("/var/run/em", 0755);
  ASSERT_EQ(mount("tmpfs", "/var/run/em", "tmpfs", MS_RDONLY, nullptr), 0);
  EXPECT_NE(event_send(0x80000702, "x", 1), 0);
  umount("/var/run/em");
}

}  // namespace
