#include <endian.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <semaphore>
#include <sstream>
#include <utility>
#include <vector>

#include "platform/cmdsockserver.h"
#include "platform/event.h"
#include "platform/storage.h"
#include "tests/unit/ctl_support.h"

namespace {

struct Request {
  uint32_t type;
  std::string message;
};

const std::string kNoRequest = "(no request)";

// What the server saw and what it answers.
std::mutex g_mutex;
Request g_request;
uint32_t g_status;
std::string g_payload;
std::atomic<bool> g_hang;
std::binary_semaphore g_release{0};

uint32_t scripted_handler(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp) {
  if (g_hang) g_release.acquire();
  const std::lock_guard lock(g_mutex);
  g_request = {type, {reinterpret_cast<const char*>(message), size}};
  cmd_rsp_attach_payload(g_payload.data(), static_cast<uint32_t>(g_payload.size()), rsp);
  return g_status;
}

void set_answer(uint32_t status, const std::string& payload) {
  const std::lock_guard lock(g_mutex);
  g_status = status;
  g_payload = payload;
}

// The last request since the previous call.
Request take_request() {
  const std::lock_guard lock(g_mutex);
  return std::exchange(g_request, {0, kNoRequest});
}

std::string result_bytes(uint32_t code, const std::string& reason, char peer_present) {
  RpcResult result;
  storage_cfg_set_result(&result, code, "%s", reason.c_str());
  result.peer_present = htole32(static_cast<uint32_t>(peer_present));
  return {reinterpret_cast<const char*>(&result), sizeof result};
}

class CtlTest : public testing::Test {
 protected:
  void SetUp() override {
    server_ = cmd_server_create(2006, scripted_handler);
    ASSERT_NE(server_, nullptr) << strerror(errno);
    ASSERT_EQ(cmd_server_start(server_), 0);
    set_answer(0, result_bytes(0, "", 'Y'));
    g_hang = false;
    take_request();
  }

  void TearDown() override {
    cmd_server_shutdown(server_);
    pthread_join(server_->thread, nullptr);
  }

 private:
  CmdServer* server_;
};

std::string text(const char* literal, size_t size) {
  return {literal, size - 1};
}
#define TEXT(literal) text(literal, sizeof(literal))

TEST_F(CtlTest, SendsTheRequestOfTheCommand) {
  const struct {
    std::vector<std::string> words;
    uint32_t type;
    std::string message;
  } cases[] = {
      {{"update", "/a b", "/c"}, 0, TEXT("/a b\0/c\0")},
      {{"update", "x/y", "../z"}, 0, TEXT("/mnt/x/y\0/mnt/../z\0")},
      {{"delete", "/c"}, 0, TEXT("\0/c\0")},
      {{"delete", "c"}, 0, TEXT("\0/mnt/c\0")},
      {{"sync"}, 0, TEXT("\0\0")},
      {{"diag", "fail-read=/a=b"}, 1, "fail-read=/a=b"},
      {{"--timeout", "5", "--socket", "2006", "--json", "sync"}, 0, TEXT("\0\0")},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(run_ctl(c.words).status, 0) << c.words[0];
    const Request request = take_request();
    EXPECT_EQ(request.type, c.type);
    EXPECT_EQ(request.message, c.message);
  }
}

TEST_F(CtlTest, ShowsTheResult) {
  const struct {
    std::string payload;
    int status;
    std::string words;
    std::string json;
  } cases[] = {
      {result_bytes(0, "", 'Y'), 0,
       "success:      yes\nlocal_ok:     yes\nremote_ok:    yes\npeer_present: yes\n",
       R"({"status":0,"success":true,"local_ok":true,"remote_ok":true,"benign":false,)"
       R"("canceled":false,"peer_present":true,"reason":""})"},
      {result_bytes(4, "quote \" back \\ tab \t esc \x1b \xc3\xa9 \xff", 'N'), 1,
       "success:      no\nlocal_ok:     yes\nremote_ok:    no\npeer_present: no\n"
       "reason:       quote \" back \\ tab \\x09 esc \\x1b \xc3\xa9 \xff\n",
       R"({"status":0,"success":false,"local_ok":true,"remote_ok":false,"benign":false,)"
       R"("canceled":true,"peer_present":false,)"
       R"("reason":"quote \" back \\ tab \u0009 esc \u001b )"
       "\xc3\xa9 \\ufffd\"}"},
      {result_bytes(42, "a", 'Y'), 1,
       "success:      no\nlocal_ok:     no\nremote_ok:    no\npeer_present: yes\n"
       "reason:       a\n",
       R"({"status":0,"success":false,"local_ok":false,"remote_ok":false,"benign":true,)"
       R"("canceled":true,"peer_present":true,"reason":"a"})"},
  };
  for (const auto& c : cases) {
    set_answer(0, c.payload);
    const Outcome plain = run_ctl({"sync"});
    EXPECT_EQ(plain.status, c.status);
    EXPECT_EQ(plain.out, c.words);
    const Outcome json = run_ctl({"--json", "sync"});
    EXPECT_EQ(json.status, c.status);
    EXPECT_EQ(json.out, c.json + "\n");
  }
}

TEST_F(CtlTest, JsonIsWellFormedUtf8WhateverTheReason) {
  const struct {
    std::string reason;
    std::string shown;
  } cases[] = {{"\xc2\x80 \xe0\xa0\x80 \xf0\x90\x80\x80 \xf4\x8f\xbf\xbf",
                "\xc2\x80 \xe0\xa0\x80 \xf0\x90\x80\x80 \xf4\x8f\xbf\xbf"},
               {"\xc1\xbf", R"(\ufffd\ufffd)"},                      // overlong
               {"\xe0\x9f\xbf", R"(\ufffd\ufffd\ufffd)"},            // overlong
               {"\xed\xa0\x80", R"(\ufffd\ufffd\ufffd)"},            // surrogate
               {"\xf4\x90\x80\x80", R"(\ufffd\ufffd\ufffd\ufffd)"},  // beyond Unicode
               {"\xe2\x82", R"(\ufffd\ufffd)"},                      // cut short
               {"\xe2\x82z", R"(\ufffd\ufffdz)"},
               {"\x80\x7f", R"(\ufffd\u007f)"}};
  for (const auto& c : cases) {
    set_answer(0, result_bytes(4, c.reason, 'Y'));
    const std::string out = run_ctl({"--json", "sync"}).out;
    const size_t start = out.find("\"reason\":\"") + 10;
    EXPECT_EQ(out.substr(start), c.shown + "\"}\n");
  }
}

TEST_F(CtlTest, RefusalIsAFailure) {
  set_answer(6, "");
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"sync"}, {"diag", "nonsense"}}) {
    EXPECT_EQ(run_ctl(words).status, 1);
    EXPECT_EQ(read_file("/run/stdout"), "refused with status 6\n");
  }
  const Outcome json = run_ctl({"--json", "diag", "nonsense"});
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(json.out, "{\"status\":6}\n");
}

TEST_F(CtlTest, AnswerThatIsNoneIsTold) {
  std::string unterminated = result_bytes(4, "x", 'Y');
  unterminated.replace(12, 116, std::string(116, 'x'));
  for (const std::string& payload : {std::string(), std::string(127, '\0'), std::string(129, '\0'),
                                     result_bytes(0, "", '?'), unterminated}) {
    set_answer(0, payload);
    EXPECT_EQ(run_ctl({"sync"}).status, 3);
    const Outcome json = run_ctl({"--json", "sync"});
    EXPECT_EQ(json.status, 3);
    EXPECT_EQ(json.out, "{\"error\":\"the daemon's answer cannot be understood\"}\n");
  }
}

TEST_F(CtlTest, WrongUsageSendsNothing) {
  const std::vector<std::string> cases[] = {{},
                                            {"update", "/a"},
                                            {"update", "/a", "/b", "/c"},
                                            {"update", "", "/b"},
                                            {"update", "/a", ""},
                                            {"delete", ""},
                                            {"delete"},
                                            {"sync", "now"},
                                            {"diag"},
                                            {"diag", ""},
                                            {"fault", "x"},
                                            {"status", "x"},
                                            {"watch", "x"},
                                            {"role"},
                                            {"role", "master"},
                                            {"verify", "x"},
                                            {"--list", "sync"},
                                            {"--against", "/x", "sync"},
                                            {"--against", "", "verify"},
                                            {"--list", "--against", "/x", "verify"},
                                            {"nonsense"},
                                            {"delete", std::string(70000, 'x')},
                                            {"--nonsense", "sync"},
                                            {"--timeout", "0", "sync"},
                                            {"--timeout", "1x", "sync"},
                                            {"--timeout", "99999999999999999999", "sync"},
                                            {"--socket", "-1", "sync"},
                                            {"--socket", "", "sync"}};
  for (const auto& words : cases) {
    const Outcome run = run_ctl(words);
    EXPECT_EQ(run.status, 2) << testing::PrintToString(words);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(read_file("/run/stderr"), "");
  }
  EXPECT_EQ(take_request().message, kNoRequest);
  EXPECT_EQ(run_ctl({"--help"}).status, 0);
}

TEST_F(CtlTest, WaitsNoLongerThanAsked) {
  g_hang = true;
  EXPECT_EQ(run_ctl({"--timeout", "1", "sync"}).status, 3);
  EXPECT_NE(read_file("/run/stderr").find("no answer within 1 s"), std::string::npos);
  g_release.release();
}

TEST(Ctl, AbsentOrMuteDaemonIsTold) {
  EXPECT_EQ(run_ctl({"--socket", "99", "sync"}).status, 3);

  mkdir("/var/run/em", 0755);
  const sockaddr_un address = {AF_UNIX, "/var/run/em/cmd.99"};
  const int mute = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(mute, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(mute, 0), 0);
  // The first waits for its answer, later ones may not even get through to the queue.
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(run_ctl({"--socket", "99", "--timeout", "1", "sync"}).status, 3);
  close(mute);
  EXPECT_EQ(run_ctl({"--socket", "99", "sync"}).status, 3);
  unlink(address.sun_path);
}

TEST(Ctl, FaultShowsTheLastRecord) {
  unlink("/var/run/em/events/0x80000702");
  EXPECT_EQ(run_ctl({"fault"}).status, 0);
  EXPECT_EQ(read_file("/run/stdout"), "no fault state has been recorded yet\n");
  EXPECT_EQ(run_ctl({"--json", "fault"}).out, "{\"recorded\":false}\n");

  const struct {
    uint32_t fault_id, status;
    uint32_t size;
    int exit_status;
    const char* words;
    const char* json;
  } cases[] = {
      {0x000F0018, 1, 1036, 0, "replication with EM 2 is healthy\n",
       "{\"recorded\":true,\"em\":2,\"fault_id\":983064,\"status\":1,\"healthy\":true}\n"},
      {0x000F0018, 4, 1036, 1, "replication with EM 2 is failing\n",
       "{\"recorded\":true,\"em\":2,\"fault_id\":983064,\"status\":4,\"healthy\":false}\n"},
      {0x000F0018, 3, 1036, 3, "", nullptr},
      {0x000F0019, 1, 1036, 3, "", nullptr},
      {0x000F0018, 1, 1035, 3, "", nullptr},
      {0x000F0018, 1, 1037, 3, "", nullptr},
      {0x000F0018, 1, 0, 3, "", nullptr},
  };
  for (const auto& c : cases) {
    uint32_t record[1040 / 4] = {2, c.fault_id, c.status};
    ASSERT_EQ(event_send(0x80000702, record, c.size), 0);
    const Outcome run = run_ctl({"fault"});
    EXPECT_EQ(run.status, c.exit_status);
    EXPECT_EQ(run.out, c.words);
    if (c.json != nullptr) {
      EXPECT_EQ(run_ctl({"--json", "fault"}).out, c.json);
    }
  }
}

// Makes the tool that lists the group print `lines` and end with `status`.
void script_group(const std::string& lines, int status) {
  static const std::string path = std::string("/mnt/bin:") + getenv("PATH");
  setenv("PATH", path.c_str(), 1);
  mkdir("/mnt/bin", 0755);
  write_file("/mnt/bin/corosync-cpgtool",
             "#!/bin/sh\nprintf '" + lines + "'\nexit " + std::to_string(status) + "\n", 0755);
}

// Records a state; 0 removes it.
void record_fault(uint32_t status) {
  uint32_t record[1036 / 4] = {2, 0x000F0018, status};
  if (status == 0)
    unlink("/var/run/em/events/0x80000702");
  else
    ASSERT_EQ(event_send(0x80000702, record, sizeof record), 0);
}

TEST_F(CtlTest, StatusTellsWhatIsThere) {
  const std::string both = "em-sync 12 1\\nother 7 1\\nem-sync 34 2\\n";
  const struct {
    uint32_t answer, fault;
    bool active;
    const char* number;
    std::string group;
    int group_status, exit_status;
    std::string words;  // after the first line
  } cases[] = {
      {0, 1, true, "1", both, 0, 0,
       "EM:     1, active\nfault:  replication with EM 2 is healthy\n"
       "group:  2 members: node 1 pid 12, node 2 pid 34\n"},
      {0, 4, true, "1", both, 0, 1,
       "EM:     1, active\nfault:  replication with EM 2 is failing\n"
       "group:  2 members: node 1 pid 12, node 2 pid 34\n"},
      {0, 4, false, "1", both, 0, 0,
       "EM:     1, standby\nfault:  replication with EM 2 is failing, recorded when this EM was "
       "active\ngroup:  2 members: node 1 pid 12, node 2 pid 34\n"},
      {0, 0, false, "2", "em-sync 34 2\\n", 0, 1,
       "EM:     2, standby\nfault:  no fault state has been recorded yet\n"
       "group:  1 member: node 2 pid 34\n"},
      {0, 0, true, "2", both, 1, 0,
       "EM:     2, active\nfault:  no fault state has been recorded yet\n"
       "group:  unknown, Corosync does not answer\n"},
      {6, 1, true, "1", both, 0, 3,
       "EM:     1, active\nfault:  replication with EM 2 is healthy\n"
       "group:  2 members: node 1 pid 12, node 2 pid 34\n"},
  };
  for (const auto& c : cases) {
    set_answer(c.answer, "");
    record_fault(c.fault);
    script_group(c.group, c.group_status);
    write_file("/var/run/em/number", c.number);
    EXPECT_EQ(run_ctl({"role", c.active ? "active" : "standby"}).status, 0);
    const Outcome run = run_ctl({"status"});
    EXPECT_EQ(run.status, c.exit_status) << run.out;
    const std::string first =
        c.answer == 0 ? "answers, pid " + std::to_string(getpid()) : "refuses with status 6";
    EXPECT_EQ(run.out, "daemon: " + first + "\n" + c.words);
    EXPECT_EQ(take_request().message, "stats");
  }
  set_answer(0, "");
  EXPECT_EQ(run_ctl({"--json", "status"}).out,
            "{\"daemon\":{\"answers\":true,\"pid\":" + std::to_string(getpid()) +
                "},\"em\":1,\"active\":true,\"fault\":{\"recorded\":true,\"em\":2,"
                "\"fault_id\":983064,\"status\":1,\"healthy\":true},"
                "\"members\":[{\"node\":1,\"pid\":12},{\"node\":2,\"pid\":34}]}\n");
  EXPECT_EQ(run_ctl({"--socket", "99", "status"}).status, 3);
}

TEST(Ctl, RoleMakesAndRemovesTheMark) {
  rmdir("/var/run/em");  // the first caller after a boot finds nothing
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(run_ctl({"role", "active"}).out, "this EM is active\n");
    EXPECT_TRUE(exists("/var/run/em/active"));
  }
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(run_ctl({"--json", "role", "standby"}).out, "{\"role\":\"standby\"}\n");
    EXPECT_FALSE(exists("/var/run/em/active"));
  }
  mkdir("/var/run/em/active", 0755);
  EXPECT_EQ(run_ctl({"role", "active"}).status, 1);
  EXPECT_EQ(run_ctl({"role", "standby"}).status, 1);
  rmdir("/var/run/em/active");
}

// The words after the time of each line that the client has printed so far.
std::vector<std::string> watched() {
  std::vector<std::string> lines;
  std::istringstream text(read_file("/run/stdout"));
  for (std::string line; std::getline(text, line);)
    lines.push_back(line.substr(line.find(' ') + 1));
  return lines;
}

TEST(Ctl, WatchPrintsChangesOnly) {
  std::filesystem::remove_all("/var/run/em/events");
  const pid_t pid = start_ctl({"watch"});
  const std::string healthy = "replication with EM 2 is healthy";
  const std::string failing = "replication with EM 2 is failing";
  std::vector<std::string> expected = {"no fault state has been recorded yet"};
  const auto wait_for_lines = [&] {
    while (watched().size() < expected.size() && waitpid(pid, nullptr, WNOHANG) == 0)
      usleep(10000);
  };
  wait_for_lines();
  for (const uint32_t status : {1u, 1u, 4u, 4u, 1u}) {
    record_fault(status);
    const std::string& line = status == 1 ? healthy : failing;
    if (expected.back() != line) expected.push_back(line);
    wait_for_lines();
  }
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  EXPECT_EQ(watched(), expected);
}

}  // namespace
