#include "platform/em.h"

#include "platform/event.h"
#include "platform_support.h"

namespace {

TEST(Em, ActiveFileAndNumberOfTheMate) {
  const Mount em("/var/run/em");
  EXPECT_FALSE(this_em_is_active());
  write_file("/var/run/em/active", "");
  EXPECT_TRUE(this_em_is_active());
  EXPECT_EQ(get_my_mate_em_num(), 2u);
  const std::pair<const char*, uint32_t> cases[] = {{"1\n", 2}, {"2\n", 1}, {"", 2}, {"two", 2}};
  for (const auto& [content, mate] : cases) {
    write_file("/var/run/em/number", content);
    EXPECT_EQ(get_my_mate_em_num(), mate) << content;
  }
}

TEST(UseReplicatedData, RunsDetachedWithTheIdAndWithoutOurDescriptors) {
  const Mount etc("/etc"), em("/etc/em");
  const std::string program = "/etc/em/use_replicated_data";
  EXPECT_EQ(use_replicated_data(5, 0), 0) << "no program is no failure";
  write_file(program, "#!/missing/interpreter\n");
  EXPECT_EQ(use_replicated_data(5, 0), 0) << "nor is one that is not executable";
  chmod(program.c_str(), 0755);
  if (kSpawnTellsFailure) {
    EXPECT_NE(use_replicated_data(5, 0), 0);
    EXPECT_EQ(errno, ENOENT);
  }

  ASSERT_EQ(mkfifo("/etc/report", 0600), 0);
  ASSERT_EQ(dup2(STDERR_FILENO, 99), 99);
  // It cannot end before the report is read, so the call returns only if it does not wait.
  write_file(program,
             "#!/bin/sh\nread pid comm state ppid group session rest"
             " < /proc/self/stat\n[ -e /proc/$$/fd/99 ] && open=yes || open=no\n"
             "echo \"$#:$1:$open:$session\" > /etc/report\n",
             0755);
  ASSERT_EQ(use_replicated_data(4000000000u, 1), 0);
  close(99);
  // The first process of a namespace inherits the program, of which nobody else has to know.
  EXPECT_TRUE(getpid() == 1 || waitpid(-1, nullptr, WNOHANG) == -1) << "a child is left";
  const std::string report = read_file("/etc/report");
  EXPECT_TRUE(report.starts_with("1:4000000000:no:")) << report;
  EXPECT_FALSE(report.ends_with(":" + std::to_string(getsid(0)) + "\n")) << report;
}

TEST(Event, LastRecordIsReadable) {
  for (const std::string& record : {std::string(1036, '\x01'), std::string("\0\xff", 2)}) {
    ASSERT_EQ(event_send(0x1F, record.data(), static_cast<uint32_t>(record.size())), 0);
    EXPECT_EQ(read_file("/var/run/em/events/0x0000001f"), record);
    EXPECT_EQ(mode_of("/var/run/em/events/0x0000001f"), 0644);
  }
  const Mount full("/var/run/em/events", "size=4k");
  EXPECT_NE(event_send(0x1F, std::string(10000, 'x').data(), 10000), 0);
}

}  // namespace
