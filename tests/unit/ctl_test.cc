#include <atomic>
#include <mutex>
#include <semaphore>
#include <sstream>
#include <utility>

#include "platform/cmdsockserver.h"
#include "platform/event.h"
#include "tests/unit/daemon_support.h"

namespace {

struct Outcome {
  int status;
  std::string out;
};

// Starts the client, which the build puts beside the tests, with `/mnt` as its current directory.
FILE* start_ctl(const std::string& line, const char* before = "") {
  const std::string program =
      fs::read_symlink("/proc/self/exe").replace_filename("cluster_sync_ctl");
  return popen(
      (std::string(before) + "cd /mnt && exec " + program + " " + line + " 2> /run/stderr").c_str(),
      "r");
}

// Runs the client to its end.
Outcome run_ctl(const std::string& line) {
  FILE* client = start_ctl(line);
  Outcome outcome = {0, ""};
  for (int c; (c = fgetc(client)) != EOF;)
    outcome.out += static_cast<char>(c);
  outcome.status = WEXITSTATUS(pclose(client));
  return outcome;
}

// What the server saw last, as its type and message, and what it answers.
std::mutex g_mutex;
std::string g_request, g_payload;
uint32_t g_status;
std::atomic<bool> g_hang;
std::binary_semaphore g_release{0};

uint32_t scripted_handler(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp) {
  if (g_hang) g_release.acquire();
  const std::lock_guard lock(g_mutex);
  g_request = std::to_string(type) + std::string(reinterpret_cast<const char*>(message), size);
  cmd_rsp_attach_payload(g_payload.data(), static_cast<uint32_t>(g_payload.size()), rsp);
  return g_status;
}

// What the server saw since the last call.
std::string take_request() {
  const std::lock_guard lock(g_mutex);
  return std::exchange(g_request, "none");
}

void set_answer(uint32_t status, const std::string& payload) {
  const std::lock_guard lock(g_mutex);
  g_status = status;
  g_payload = payload;
  g_request = "none";
}

std::string result_bytes(uint32_t code, const std::string& reason, char peer_present) {
  RpcResult result;
  storage_cfg_set_result(&result, code, "%s", reason.c_str());
  result.peer_present = static_cast<uint32_t>(peer_present);
  return {reinterpret_cast<const char*>(&result), sizeof result};
}

// Records a state of the replication fault; 0 removes it.
void record_fault(uint32_t status, uint32_t fault_id = 0x000F0018, uint32_t size = 1036) {
  const uint32_t record[1040 / 4] = {2, fault_id, status};
  if (status == 0)
    unlink("/var/run/em/events/0x80000702");
  else
    ASSERT_EQ(event_send(0x80000702, record, size), 0);
}

// Makes the tool that lists the group print `lines` and end with `status`.
void script_group(const std::string& lines, int status) {
  static const std::string path = std::string("/mnt/bin:") + getenv("PATH");
  setenv("PATH", path.c_str(), 1);
  mkdir("/mnt/bin", 0755);
  write_file("/mnt/bin/corosync-cpgtool",
             "#!/bin/sh\nprintf '" + lines + "'\nexit " + std::to_string(status) + "\n", 0755);
}

Lines split(const std::string& text, char separator) {
  Lines parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);)
    parts.push_back(part);
  return parts;
}

class CtlTest : public DaemonTest {
 protected:
  CtlTest() : server_(cmd_server_create(2006, scripted_handler)) {
    EXPECT_EQ(cmd_server_start(server_), 0);
    set_answer(0, result_bytes(0, "", 'Y'));
  }
  ~CtlTest() override {
    cmd_server_shutdown(server_);
    pthread_join(server_->thread, nullptr);
  }

  static void make_trees() {
    make_file(kActivePersistentRoot, "empty", "");
    make_file(kActivePersistentRoot, "a/b/large", pattern(3 * kChunkSize + 7));
    make_file(kActivePersistentRoot, "a/full", pattern(kChunkSize));
    make_file(kActiveVolatileRoot, "with blanks ", "v");
    make_file(kThisEmRoot, "secret", "s", 0600);
    make_file(kThisEmRoot, "d/TempUpdate_x", "not replicated");
    make_file(kThisEmRoot, ".$SyncDigest$gone", "an orphan the daemon would delete");
    make_file(kOtherEmRoot, "\xff\xc3", "other");
    ASSERT_EQ(symlink("secret", tree_path(kThisEmRoot, "link").c_str()), 0);
  }

  // Makes the trees what the other EM would have: each EM's own tree is the other's copy.
  static void become_other_em(int number) {
    fs::rename(root_paths[kThisEmRoot], "/mnt/part.persistent/aside");
    fs::rename(root_paths[kOtherEmRoot], root_paths[kThisEmRoot]);
    fs::rename("/mnt/part.persistent/aside", root_paths[kOtherEmRoot]);
    write_file("/var/run/em/number", std::to_string(number));
  }

  Outcome run = {};
  CmdServer* server_;
};

}  // namespace

TEST_F(CtlTest, SendsTheRequestOfTheCommandOrNoneForWrongUsage) {
  const std::string nul(1, '\0');
  for (const auto& [line, request] : std::vector<std::pair<const char*, std::string>>{
           {"update x/y ../z", "0/mnt/x/y" + nul + "/mnt/../z" + nul},
           {"delete /c", "0" + nul + "/c" + nul},
           {"diag fail-read=/a=b", "1fail-read=/a=b"},
           {"--timeout 1 --socket 2006 --json sync", "0" + nul + nul}}) {
    EXPECT_EQ(run_ctl(line).status, 0) << line;
    EXPECT_EQ(take_request(), request);
  }
  const std::string wrong =
      ";update /a;update /a /b /c;update '' /b;update /a '';delete '';delete;sync now;diag '';"
      "fault x;status x;role master;verify x;--list sync;--against '' verify;nonsense;"
      "--list --against /x verify;--nonsense sync;--timeout 0 sync;--timeout 1x sync;"
      "--timeout 99999999999999999999 sync;--socket -1 sync;delete ";
  for (const std::string& line : split(wrong + std::string(70000, 'x'), ';')) {
    run = run_ctl(line);
    EXPECT_EQ(run.status, 2) << line;
    EXPECT_EQ(run.out, "");
  }
  EXPECT_EQ(take_request(), "none");
}

TEST_F(CtlTest, ShowsTheAnswer) {
  const std::string no_answer = "{\"error\":\"the daemon's answer cannot be understood\"}";
  const struct {
    uint32_t answer;
    std::string payload;
    int status;
    std::string plain, json;
  } cases[] = {
      {0, result_bytes(0, "", 'Y'), 0,
       "success:      yes\nlocal_ok:     yes\nremote_ok:    yes\npeer_present: yes\n",
       R"({"status":0,"success":true,"local_ok":true,"remote_ok":true,"benign":false,)"
       R"("canceled":false,"peer_present":true,"reason":""})"},
      {0,
       result_bytes(
           42, "\" \\ \t \x7f \xc3\xa9 \xff \xc1\xbf \xed\xa0\x80 \xf4\x90\x80\x80 \xe2\x82", 'N'),
       1,
       "success:      no\nlocal_ok:     no\nremote_ok:    no\npeer_present: no\n"
       "reason:       \" \\ \\x09 \\x7f \xc3\xa9 \xff \xc1\xbf \xed\xa0\x80 \xf4\x90\x80\x80 "
       "\xe2\x82\n",
       R"({"status":0,"success":false,"local_ok":false,"remote_ok":false,"benign":true,)"
       R"("canceled":true,"peer_present":false,"reason":"\" \\ \u0009 \u007f )"
       "\xc3\xa9 "
       R"(\ufffd \ufffd\ufffd \ufffd\ufffd\ufffd \ufffd\ufffd\ufffd\ufffd \ufffd\ufffd"})"},
      {6, "", 1, "refused with status 6\n", "{\"status\":6}"},
      {0, std::string(127, '\0'), 3, "", no_answer},
      {0, std::string(129, '\0'), 3, "", no_answer},
      {0, result_bytes(0, "", '?'), 3, "", no_answer},
      {0, result_bytes(0, "", 'Y').replace(12, 116, 116, 'x'), 3, "", no_answer},
  };
  for (const auto& c : cases) {
    set_answer(c.answer, c.payload);
    run = run_ctl("sync");
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.out, c.plain);
    EXPECT_EQ(run_ctl("--json sync").out, c.json + "\n");
  }
  set_answer(6, "");
  EXPECT_EQ(run_ctl("diag nonsense").status, 1);
  EXPECT_EQ(run_ctl("--socket 99 sync").status, 3);
  g_hang = true;
  EXPECT_EQ(run_ctl("--timeout 1 sync").status, 3);
  EXPECT_NE(read_file("/run/stderr").find("no answer within 1 s"), std::string::npos);
  g_hang = false;
  g_release.release();
}

TEST_F(CtlTest, FaultShowsTheLastRecordAndWatchItsChanges) {
  const struct {
    uint32_t fault_id, status, size;
    int exit_status;
    const char* words;
  } cases[] = {
      {0, 0, 0, 0, "no fault state has been recorded yet\n"},
      {0x000F0018, 1, 1036, 0, "replication with EM 2 is healthy\n"},
      {0x000F0018, 4, 1036, 1, "replication with EM 2 is failing\n"},
      {0x000F0018, 3, 1036, 3, ""},
      {0x000F0019, 1, 1036, 3, ""},
      {0x000F0018, 1, 1035, 3, ""},
      {0x000F0018, 1, 1037, 3, ""},
  };
  for (const auto& c : cases) {
    record_fault(c.status, c.fault_id, c.size);
    run = run_ctl("fault");
    EXPECT_EQ(run.status, c.exit_status);
    EXPECT_EQ(run.out, c.words);
  }
  record_fault(4);
  EXPECT_EQ(run_ctl("--json fault").out,
            "{\"recorded\":true,\"em\":2,\"fault_id\":983064,\"status\":4,\"healthy\":false}\n");
  FILE* watch = start_ctl("watch", "echo $$ && ");
  char line[100];
  const pid_t pid = std::stoi(fgets(line, sizeof line, watch));
  EXPECT_TRUE(std::string(fgets(line, sizeof line, watch)).ends_with("is failing\n"));
  record_fault(4);  // no change, also when it looks again after a second
  usleep(1500000);
  record_fault(1);
  EXPECT_TRUE(std::string(fgets(line, sizeof line, watch)).ends_with("is healthy\n"));
  kill(pid, SIGTERM);
  pclose(watch);
}

TEST_F(CtlTest, StatusTellsWhatIsThere) {
  const std::string both = "em-sync 12 1\\nother 7 1\\nem-sync 34 2\\n";
  const std::string fault = "fault:  replication with EM 2 is ";
  const std::string members = "\ngroup:  2 members: node 1 pid 12, node 2 pid 34\n";
  const struct {
    uint32_t answer, fault;
    const char* role;
    std::string group;
    int group_status, exit_status;
    std::string words;  // after the first line
  } cases[] = {
      {0, 4, "active", both, 0, 1, fault + "failing" + members},
      {0, 4, "standby", both, 0, 0, fault + "failing, recorded when this EM was active" + members},
      {0, 1, "active", both, 1, 0, fault + "healthy\ngroup:  unknown, Corosync does not answer\n"},
      {0, 0, "standby", "em-sync 34 2\\n", 0, 1,
       "fault:  no fault state has been recorded yet\ngroup:  1 member: node 2 pid 34\n"},
      {6, 1, "active", both, 0, 3, fault + "healthy" + members},
  };
  write_file("/var/run/em/number", "2");
  for (const auto& c : cases) {
    set_answer(c.answer, "");
    record_fault(c.fault);
    script_group(c.group, c.group_status);
    EXPECT_EQ(run_ctl(std::string("role ") + c.role).status, 0);
    run = run_ctl("status");
    EXPECT_EQ(run.status, c.exit_status);
    const std::string first =
        c.answer == 0 ? "answers, pid " + std::to_string(getpid()) : "refuses with status 6";
    EXPECT_EQ(run.out, "daemon: " + first + "\nEM:     2, " + c.role + "\n" + c.words);
    EXPECT_EQ(take_request(), "1stats");
  }
  set_answer(0, "");
  EXPECT_EQ(run_ctl("--json status").out,
            "{\"daemon\":{\"answers\":true,\"pid\":" + std::to_string(getpid()) +
                "},\"em\":2,\"active\":true,\"fault\":{\"recorded\":true,\"em\":2,"
                "\"fault_id\":983064,\"status\":1,\"healthy\":true},"
                "\"members\":[{\"node\":1,\"pid\":12},{\"node\":2,\"pid\":34}]}\n");
  EXPECT_EQ(run_ctl("role standby").out, "this EM is standby\n");
  EXPECT_FALSE(exists("/var/run/em/active"));
  EXPECT_EQ(run_ctl("--json role standby").out, "{\"role\":\"standby\"}\n");
  mkdir("/var/run/em/active", 0755);
  EXPECT_EQ(run_ctl("role active").status, 1);
  EXPECT_EQ(run_ctl("role standby").status, 1);
}

TEST_F(CtlTest, VerifyListsWhatTheDaemonListsAndLeavesNoTrace) {
  make_trees();
  for (const char* em : {"1", "2"}) {
    write_file("/var/run/em/number", em);
    Lines lines = split(run_ctl("verify --list").out, '\n');
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(), std::string("cluster_sync trees of EM ") + em);
    EXPECT_EQ(lines.back(), "end of trees, lines: " + std::to_string(lines.size() - 2));
    if (*em == '1') {
      EXPECT_TRUE(exists(tree_path(kThisEmRoot, ".$SyncDigest$gone")));
      EXPECT_FALSE(exists(tree_path(kActivePersistentRoot, "a/b/.$SyncDigest$large")));
    }
    // The second time most come from the digest cache files that the first scan has written.
    Lines scanned = scan_lines(ctx);
    for (std::string& line : scanned) {
      if (line[0] == 'Q') line[0] = em[0];
      if (line[0] == 'P') line[0] = *em == '1' ? '2' : '1';
    }
    std::sort(scanned.begin(), scanned.end());
    std::sort(lines.begin() + 1, lines.end() - 1);
    EXPECT_EQ(Lines(lines.begin() + 1, lines.end() - 1), scanned);
  }
}

TEST_F(CtlTest, VerifyNamesTheFilesThatDiffer) {
  make_trees();
  write_file("/var/run/em/number", "1");
  const std::string digests = run_ctl("verify").out;
  EXPECT_TRUE(digests.starts_with("active            3 files          262151 bytes  ")) << digests;
  const std::string whole = run_ctl("verify --list").out;
  write_file("/run/saved", whole);
  become_other_em(2);
  EXPECT_EQ(run_ctl("verify").out, digests);
  EXPECT_EQ(run_ctl("verify --against /run/saved").status, 0);

  make_file(kActivePersistentRoot, "a/full", pattern(kChunkSize, 1));
  chmod(tree_path(kActivePersistentRoot, "empty").c_str(), 0600);
  unlink(tree_path(kActiveVolatileRoot, "with blanks ").c_str());
  make_file(kThisEmRoot, "new\nline", "");
  make_file(kThisEmRoot, "new\\x0aline", "");
  run = run_ctl("verify --against - < /run/saved");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out,
            "active/a/full: the content differs\nactive/empty: the mode differs\n"
            "em2/new\\x0aline: only here\nem2/new\\x5cx0aline: only here\n"
            "volatile/with blanks : only there\n5 files differ\n");
  EXPECT_NE(run_ctl("--json verify --against /run/saved")
                .out.find(R"({"tree":"volatile","path":"with blanks ","what":"only there"})"),
            std::string::npos);
  std::string one_line_less = whole;
  one_line_less.erase(whole.find("\nA "),
                      whole.find('\n', whole.find("\nA ") + 1) - whole.find("\nA "));
  for (const std::string& broken :
       {std::string(), whole.substr(0, whole.rfind("end of")), "x" + whole, one_line_less,
        std::string("cluster_sync trees of EM 1\nA short\nend of trees, lines: 1\n")}) {
    write_file("/run/saved", broken);
    EXPECT_EQ(run_ctl("verify --against /run/saved").status, 3) << broken;
  }
  std::string deep = "d";
  for (int i = 0; i < 16; ++i)
    deep += "/d";
  fs::create_directories(tree_path(kThisEmRoot, deep));
  EXPECT_EQ(run_ctl("verify").status, 3);
  fs::remove_all(tree_path(kThisEmRoot, "d"));
  fs::resize_file(make_file(kOtherEmRoot, "large", ""), uintmax_t{1} << 32);
  EXPECT_EQ(run_ctl("--json verify").out, "{\"error\":\"the trees could not be read in full\"}\n");
}
