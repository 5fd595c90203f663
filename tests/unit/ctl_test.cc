#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <semaphore>
#include <sstream>
#include <thread>

#include "client/cluster_sync.h"
#include "platform/cmdsockserver.h"
#include "platform/escape.h"
#include "platform/event.h"
#include "redundancy_health/frame/state_record.h"
#include "tests/unit/daemon_support.h"

namespace {

// What the server received, as type and message, and its next answer. The server does the rename if
// it answers with success.
std::mutex g_mutex;
std::string g_request, g_payload, g_report;
uint32_t g_status;
std::counting_semaphore<> g_turn{0};  // one for each request that may be answered
std::atomic<int> g_answered;

uint32_t scripted_handler(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp) {
  g_turn.acquire();
  ++g_answered;
  const std::lock_guard lock(g_mutex);
  g_request = std::to_string(type) + std::string(reinterpret_cast<const char*>(message), size);
  const std::string source = g_request.substr(1, g_request.find('\0') - 1);
  if (type == 0 && !source.empty() && g_payload[0] != 0)
    rename(source.c_str(), &g_request[source.size() + 2]);
  if (type == 3 && !g_report.empty()) {
    std::replace(g_report.begin(), g_report.end(), ';', '\0');
    const int fd = memfd_create("report", MFD_CLOEXEC);
    pwrite(fd, g_report.data(), g_report.size(), 0);
    cmd_rsp_attach_descriptor(fd, rsp);
  }
  cmd_rsp_attach_payload(g_payload.data(), static_cast<uint32_t>(g_payload.size()), rsp);
  return g_status;
}

void answer_with(uint32_t status, const std::string& payload) {
  g_status = status;
  g_payload = payload;
  g_turn.release();
}

#define SHA256_S "043a718774c572bd8a25adbeb1bfcd5c0256ae11cecf9f9c3f925d0e52beaf89"

std::string result_bytes(uint32_t code = 0, const char* reason = "", char peer_present = 'Y') {
  RpcResult result;
  storage_cfg_set_result(&result, code, "%s", reason);
  result.peer_present = static_cast<uint32_t>(peer_present);
  return {reinterpret_cast<const char*>(&result), sizeof result};
}

std::string bytes_of_state(const StateRecord& state) {
  return {reinterpret_cast<const char*>(&state), sizeof state};
}

// Writes a state of the replication fault.
void record_fault(uint32_t status, uint32_t fault_id = 0x000F0018, uint32_t size = 1036) {
  const uint32_t record[1040 / 4] = {2, fault_id, status};
  ASSERT_EQ(event_send(0x80000702, record, size), 0);
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
  CtlTest() {
    while (g_turn.try_acquire())
      continue;
    server_ = cmd_server_create(2006, scripted_handler);
    EXPECT_EQ(cmd_server_start(server_), 0);
  }
  ~CtlTest() override {
    cmd_server_shutdown(server_);
    pthread_join(server_->thread, nullptr);
  }

  // The client, in the directory of the tests.
  static std::string program() {
    return fs::read_symlink("/proc/self/exe").replace_filename("cluster_sync_ctl");
  }

  // Runs the client in /mnt. Returns its exit status.
  int run(const std::string& line) {
    const std::string command = "cd /mnt && " + program() + " " + line;
    const int status = system(("(" + command + ") > /run/out").c_str());
    out_ = read_file("/run/out");
    const std::lock_guard lock(g_mutex);
    request_ = std::exchange(g_request, "");
    return WEXITSTATUS(status);
  }

  // Runs the client with this answer of the server.
  int run_answered(const std::string& line, uint32_t status, const std::string& payload) {
    answer_with(status, payload);
    return run(line);
  }

  testing::AssertionResult shows(const std::string& part) const {
    return testing::AssertionResult(out_.find(part) != std::string::npos) << out_;
  }

  std::string out_, request_;
  static inline CmdServer* server_ = nullptr;  // never freed
};

}  // namespace

TEST_F(CtlTest, SendsTheRequestOfTheCommandOrNoneForWrongUsage) {
  const std::string nul(1, '\0');
  make_file(3, "d/e", "");
  fs::create_symlink(tree_path(1, ""), "/mnt/way");
  mkdir("/mnt/bound", 0755);
  const Mount bound("/mnt/bound", nullptr, tree_path(0, "").c_str());
  for (const auto& [line, request] : std::vector<std::pair<const char*, std::string>>{
           {"update x/y way/z", "0/mnt/x/y" + nul + tree_path(1, "z") + nul},
           {"update way/TempUpdate_ bound/z",
            "0" + tree_path(1, "TempUpdate_") + nul + tree_path(0, "z") + nul},
           {"delete /run//replicated_by_active_em/d/../d/c", "0" + nul + tree_path(3, "d/c") + nul},
           {"delete /mnt/part.persistent/replicated_by_this_em/no/such",
            "0" + nul + tree_path(1, "no/such") + nul},
           {"diag fail-read=/a=b", "1fail-read=/a=b"},
           {"--timeout 9 --socket 2006 --json sync", "0" + nul + nul}}) {
    EXPECT_EQ(run_answered(line, 0, result_bytes()), 0) << line;
    EXPECT_EQ(request_, request);
  }
  EXPECT_EQ(run("delete part.persistent/replicated_by_this_em/../x 2>&1"), 1);
  EXPECT_EQ(out_.find("cluster_sync_ctl: part.persistent/replicated_by_this_em/../x: the path lies "
                      "in none of the replicated trees"),
            0u);
  const std::string wrong =
      ";update /a;update /a '';delete '';delete;sync now;diag '';fault x;role master;verify x;"
      "--list sync;--force sync;compare x;--against '' verify;--list --against /x "
      "verify;nonsense;--nonsense sync;kept show 9/d/f;kept diff 9/d/f x;kept diff;"
      "--timeout 0 sync;--timeout 1x sync;--timeout 99999999999999999999 sync;delete ";
  for (const std::string& line : split(wrong + std::string(70000, 'x'), ';')) {
    EXPECT_EQ(run(line + " 2> /dev/null"), 2) << line;
    EXPECT_EQ(request_ + out_, "");
  }
}

TEST_F(CtlTest, ShowsTheAnswerWithoutItsHostileBytes) {
  const std::string success = result_bytes();
  EXPECT_EQ(run_answered("sync", 0, success), 0);
  EXPECT_EQ(out_, "synchronised with the other EM\n");
  EXPECT_EQ(run_answered("-q delete /run/replicated_by_active_em/x", 0, success), 0);
  EXPECT_EQ(out_, "");
  run_answered("delete /run/replicated_by_active_em/x", 0, result_bytes(0, "", 'N'));
  EXPECT_EQ(out_, "deleted here; the other EM is away\n");
  const std::string hostile =
      result_bytes(4, "\" \\ \t \x7f \xc3\xa9 \xff \xed\xa0\x80 \xf4\x90\x80\x80 \xe2\x82", 'N');
  EXPECT_EQ(run_answered("sync 2>&1", 0, hostile), 1);
  EXPECT_EQ(out_,
            "cluster_sync_ctl: not synchronised: \" \\ \\x09 \\x7f \xc3\xa9 \\xff \\xed\\xa0\\x80 "
            "\\xf4\\x90\\x80\\x80 \\xe2\\x82\n");
  run_answered("--json sync", 0, hostile);
  EXPECT_EQ(
      out_,
      R"({"status":0,"success":false,"local_ok":true,"remote_ok":false,"benign":false,)"
      R"("canceled":true,"peer_present":false,"reason":"\" \\ \u0009 \u007f )"
      "\xc3\xa9 "
      R"(\ufffd \ufffd\ufffd\ufffd \ufffd\ufffd\ufffd\ufffd \ufffd\ufffd","published":"here","why":"other"})"
      "\n");
  for (const std::string& payload :
       {std::string(127, '\0'), success + '\0', result_bytes(0, "", '?'),
        std::string(success).replace(12, 116, 116, 'x')})
    EXPECT_EQ(run_answered("sync", 0, payload), 3) << "no answer of the daemon";
  EXPECT_EQ(run_answered("sync", 6, ""), 1);
  EXPECT_EQ(run_answered("diag nonsense", 6, ""), 1);
}

TEST_F(CtlTest, PutAndEditPublishAllOrLeaveEverythingAndNameWhatWasTyped) {
  const std::string good = result_bytes(), bad = result_bytes(34, "no", 'N');
  const std::string file = make_file(3, "file", "old", 0644);
  set_active(true);
  setenv("VISUAL", "sh '/mnt/the editor'", 1);
  setenv("TMPDIR", "/mnt", 1);
  write_file("/mnt/secret", "secret", 0600);
  write_file("/mnt/shared", "shared", 0644);
  write_file("/mnt/large", "");
  EXPECT_EQ(truncate("/mnt/large", int64_t{1} << 32), 0);
  for (const auto& [line, answer, editor, exit_status, content, mode, kept] :
       std::vector<std::tuple<std::string, std::string, const char*, int, const char*, int, bool>>{
           {"put shared", bad, "", 1, "old", 0644, false},
           {"put secret", good, "", 0, "secret", 0600, false},
           {"put shared", good, "", 0, "shared", 0600, false},
           {"put --mode 644 - < secret", good, "", 0, "secret", 0644, false},
           {"put large", "", "", 1, "secret", 0644, false},
           {"put /mnt", "", "", 1, "secret", 0644, false},
           {"edit", "", "sleep 0.4; touch \"$1\" \"$1~\"", 0, "secret", 0644, false},
           {"edit", good, "echo edited > \"$1\"", 0, "edited\n", 0644, false},
           {"edit", bad, "echo typed > \"$1\"", 1, "edited\n", 0644, true},
           {"edit", "", "echo typed > \"$1\"; false", 1, "edited\n", 0644, true},
           {"edit", "", "echo typed > \"$1\"; echo > /run/replicated_by_active_em/file", 1, "\n",
            0644, true}}) {
    write_file("/mnt/the editor", editor);
    const std::string command = line + " /run/replicated_by_active_em/file 2>&1";
    EXPECT_EQ(answer.empty() ? run(command) : run_answered(command, 0, answer), exit_status)
        << out_;
    EXPECT_EQ(request_.empty(), answer.empty()) << line;
    EXPECT_EQ(read_file(file), content) << line << editor;
    EXPECT_EQ(mode_of(file), mode) << line;
    EXPECT_EQ(names_in(tree_path(3, "")), std::set<std::string>{"file"}) << line;
    const size_t copy = out_.find("/mnt/cluster_sync_ctl.");
    ASSERT_EQ(copy != std::string::npos, kept) << out_;
    if (kept) {
      EXPECT_EQ(read_file(out_.substr(copy, out_.find('\n', copy) - copy)), "typed\n");
    }
  }
  EXPECT_EQ(names_in("/mnt").size(), 8u) << testing::PrintToString(names_in("/mnt"));
}

TEST_F(CtlTest, PutAndEditAskBeforeTheyWork) {
  setenv("VISUAL", "touch /mnt/edited; true", 1);
  make_file(1, "dir/file", "old");
  const std::string own = "/mnt/part.persistent/replicated_by_this_em/";
  fs::create_symlink(own + "dir/file", "/mnt/link");
  fs::create_symlink("dir", own + "way");
  write_file("/mnt/file", "content");
  for (const auto& [destination, rule] : std::vector<std::pair<std::string, const char*>>{
           {"/etc/hostname", "the path lies in none of the replicated trees"},
           {"/run/replicated_by_active_em/x", "this EM is standby"},
           {"part.persistent/replicated_by_other_em/x", "is written by the other"},
           {own + "TempUpdate_x", "TempUpdate_ are for files under construction"},
           {own + ".\\$SyncDigest\\$x", ".$SyncDigest$ are the daemon's own"},
           {"'" + own + " x'", "must not begin with a blank"},
           {own + std::string(243, 'x'), "at most 242 bytes"},
           {own + "1/2/3/4/5/6/7/8/9/a/b/c/d/e/f/g/h/x", "at most 16 directories"},
           {own + "none/x", "its directory does not exist"},
           {own + "way/x", "above it in the tree is a symbolic link"},
           {"/mnt/link", "it is a symbolic link to /mnt/part"}}) {
    EXPECT_EQ(run("put file " + destination + " 2>&1"), 1);
    EXPECT_TRUE(shows(rule));
    EXPECT_EQ(run("edit " + destination + " 2>/dev/null"), 1) << destination;
    EXPECT_EQ(request_, "");
  }
  EXPECT_EQ(run("--socket 1 edit " + own + "x 2> /dev/null"), 3);
  EXPECT_FALSE(exists("/mnt/edited"));
  const auto start = std::chrono::steady_clock::now();
  run("edit " + own + "x 2>&1");
  const bool at_once = std::chrono::steady_clock::now() - start < std::chrono::milliseconds(300);
  EXPECT_TRUE(exists("/mnt/edited"));
  EXPECT_TRUE(!at_once || shows("the editor returned at once")) << out_;
}

TEST_F(CtlTest, KeptFilesAreListedComparedAndPublishedAgain) {
  const std::string own = tree_path(1, "");
  setenv("TZ", "UTC", 1);
  EXPECT_EQ(run("kept"), 0) << "nothing was ever kept";
  EXPECT_EQ(out_, "");
  const std::string kept = "/mnt/part.persistent/replaced/",
                    ninth = kept + "00000009.20261126T110603Z.own.replaced/",
                    tenth = kept + "00000010.20261126T110604Z.copy.deleted/";
  for (const std::string& folder : {ninth + "d", tenth, kept + "notes"})
    fs::create_directories(folder);
  write_file(ninth + "d/f", "old\n");
  write_file(ninth + "bin", std::string("\0x", 2));
  write_file(tenth + "es\033cape", "gone");
  write_file(kept + "notes/secret", "secret");
  fs::create_symlink(kept + "notes/secret", ninth + "link");
  make_file(1, "d/f", "new\n");
  make_file(1, "bin", "x");
  for (const auto& [line, status, output] : std::vector<std::tuple<const char*, int, std::string>>{
           {"kept", 0,
            "2026-11-26 11:06:03  own     replaced          2  9/bin\n"
            "2026-11-26 11:06:03  own     replaced          4  9/d/f\n"
            "2026-11-26 11:06:04  copy    deleted           4  10/es\\x1bcape\n"},
           {"kept diff 9/d/f", 1, "--- kept: 9/d/f\n+++ " + own + "d/f\n@@ -1 +1 @@\n-old\n+new\n"},
           {"kept diff 9/bin", 1, "Binary files kept: 9/bin and " + own + "bin differ\n"},
           {"kept diff \"$(printf '10/es\\033cape')\" | tail -n 2", 0,
            "-gone\n\\ No newline at end of file\n"},
           {"kept restore 9/d/f -", 0, "old\n"},
           {"kept restore 9/link -", 1, ""},
           {"kept restore 9/../notes/secret -", 1, ""},
           {"kept restore 11/x", 1, ""},
           {"kept restore 9", 1, ""}}) {
    EXPECT_EQ(run(std::string(line) + " 2> /dev/null"), status) << line;
    EXPECT_EQ(out_, output);
  }
  EXPECT_EQ(run("--json kept"), 0);
  EXPECT_TRUE(shows(R"({"name":"9/d/f","time":1795691163,"tree":"own","path":"d/f","size":4,)"
                    R"("kind":"replaced"})"));
  EXPECT_EQ(run_answered("kept restore 9/d/f", 0, result_bytes()), 0);
  EXPECT_EQ(out_, "published on both EMs\n");
  EXPECT_EQ(read_file(own + "d/f"), "old\n");
  EXPECT_EQ(run("kept restore \"$(printf '10/es\\033cape')\" 2>&1"), 1);
  EXPECT_TRUE(shows("is written by the other"));
}

// A signal is sent when the file that `until` names is there.
TEST_F(CtlTest, ASignalLeavesNothingOrNamesWhatWasTyped) {
  const std::string folder = tree_path(1, ""), name = folder + "name";
  setenv("TMPDIR", "/mnt", 1);
  for (const auto& [command, editor, until, expected] :
       std::vector<std::tuple<std::string, std::string, std::string, std::string>>{
           {"put -", "", "/mnt/reads", ""},
           {"put /etc/hostname", "", folder + "TempUpdate_*", "interrupted; nothing is published"},
           {"edit", "touch /mnt/edits; exec sleep 9", "/mnt/edits", ""},
           {"edit", "echo typed > \"$1\"; touch /mnt/edits; exec sleep 9", "/mnt/edits",
            "what was typed is in /mnt/cluster_sync_ctl."}}) {
    for (const char* signal : {"HUP", "TERM"}) {
      write_file("/mnt/the editor", editor);
      setenv("VISUAL", "exec sh '/mnt/the editor'", 1);
      const std::string line =
          "(while echo 2> /dev/null; do touch /mnt/reads; sleep 0.1; done) | (exec 3<&0; " +
          program() + " " + command + " " + name + " <&3 & until ls " + until +
          " > out 2>&1; do sleep 0.01; done; kill -" + signal + " $!; wait $!)";
      EXPECT_NE(system(("cd /mnt && " + line + " > out 2>&1").c_str()), 0);
      out_ = read_file("/mnt/out");
      EXPECT_TRUE(shows(expected));
      EXPECT_EQ(names_in(folder).size(), 0u);
      unlink("/mnt/edits");
      unlink("/mnt/reads");
    }
  }
  g_turn.release(2);
  size_t copies = 0;
  for (const std::string& left : names_in("/mnt"))
    copies += left.starts_with("cluster_sync_ctl.");
  EXPECT_EQ(copies, 2u) << "those that were named";
}

TEST_F(CtlTest, SyncShowsItsTimeOnATerminalOnly) {
  const std::string ctl = program() + " --timeout 1 sync --progress";
  EXPECT_EQ(run("--timeout 1 sync --progress 2>&1"), 3);
  EXPECT_EQ(out_,
            "cluster_sync_ctl: no answer within 1 s; the daemon has the request, and its "
            "exchange goes on\n");
  EXPECT_EQ(run("--help > /dev/null; script -qec '" + ctl + "' /dev/null < /dev/null"), 3);
  EXPECT_TRUE(shows("0 s (one without progress ends after 10 s)"));
  g_turn.release(2);
}

TEST_F(CtlTest, TheLibraryTellsFailuresApart) {
  const auto sync = [](uint32_t status, const std::string& payload) {
    answer_with(status, payload);
    cluster_sync_result result;
    return cluster_sync_sync(nullptr, -1, &result);
  };
  EXPECT_EQ(sync(0, result_bytes()), 0);
  EXPECT_EQ(sync(0, result_bytes(4, "", 'Y')), ECANCELED);
  EXPECT_EQ(sync(6, ""), ECANCELED);
  EXPECT_EQ(sync(0, "short"), EPROTO);
  EXPECT_EQ(cluster_sync_sync("/mnt/none", 100, nullptr), ECONNREFUSED);
  EXPECT_EQ(cluster_sync_sync(nullptr, 0, nullptr), EINPROGRESS);
  g_turn.release();
  chmod("/var/run/em/cmd.2006", 0666);  // the server still serves only root
  EXPECT_EQ(
      run_forked([] { return setuid(65534) == 0 ? cluster_sync_sync(nullptr, 9000, nullptr) : 0; }),
      ECONNRESET);
  write_file("/var/run/em/cmd.78", "precious");
  EXPECT_EQ(cmd_server_create(2006, scripted_handler), nullptr) << "another one answers there";
  EXPECT_EQ(cmd_server_create(78, scripted_handler), nullptr);
  EXPECT_EQ(read_file("/var/run/em/cmd.78"), "precious");
  EXPECT_EQ(cluster_sync_update(nullptr, "/mnt/a", "", 100, nullptr), EINVAL);
  EXPECT_EQ(cluster_sync_delete(nullptr, tree_path(1, "").c_str(), 100, nullptr), EISDIR);

  sockaddr_un address = {AF_UNIX, "/mnt/deaf"};
  const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  listen(listener, 1);
  cluster_sync_connection* connection = nullptr;
  ASSERT_EQ(cluster_sync_open("/mnt/deaf", 100, &connection), 0);
  close(accept(listener, nullptr, nullptr));
  EXPECT_EQ(cluster_sync_send_diag(connection, "stats", 100), ECONNRESET);
  cluster_sync_close(connection);
  std::vector<cluster_sync_connection*> waiting;  // until the backlog is full
  while (cluster_sync_open("/mnt/deaf", 0, &connection) == 0)
    waiting.push_back(connection);
  ASSERT_GT(waiting.size(), 0u);
  EXPECT_EQ(cluster_sync_open("/mnt/deaf", 50, &connection), ETIMEDOUT);
  ASSERT_EQ(cluster_sync_send_diag(waiting[0], "stats", 0), 0);
  close(listener);
  EXPECT_EQ(cluster_sync_receive(waiting[0], 100, nullptr, nullptr), ECONNRESET);
  std::for_each(waiting.begin(), waiting.end(), cluster_sync_close);
}

// After a timeout, the reported result is what happens to the file, and no answer is mistaken for
// that of another request.
TEST_F(CtlTest, TheLibraryTellsTheTruthWhenTheTimeIsUp) {
  const std::string name = tree_path(1, "name"), folder = tree_path(1, "");
  g_status = 0;
  g_payload = std::string(100, 'x');  // renamed, but not answered in time
  const int answered = g_answered;
  EXPECT_EQ(cluster_sync_put(nullptr, "new", 3, name.c_str(), 0600, 50, nullptr), ETIMEDOUT);
  g_turn.release();
  while (g_answered == answered)
    usleep(1000);  // else the next request might be answered instead
  cluster_sync_connection* connection = nullptr;
  ASSERT_EQ(cluster_sync_open(nullptr, 1000, &connection), 0);
  EXPECT_EQ(cluster_sync_receive(connection, 0, nullptr, nullptr), ENOMSG);
  EXPECT_EQ(cluster_sync_withdraw(connection), ENOMSG);

  ASSERT_EQ(cluster_sync_put_begin(connection, name.c_str(), 0600), 0);
  EXPECT_EQ(cluster_sync_send_diag(connection, "stats", 0), EBUSY);
  ASSERT_EQ(cluster_sync_put_write(connection, "new", 3), 0);
  EXPECT_EQ(names_in(folder).size(), 0u) << "no name as long as it is written";
  ASSERT_EQ(cluster_sync_put_send(connection, 0), 0);
  EXPECT_EQ(cluster_sync_receive(connection, 1, nullptr, nullptr), EAGAIN);
  EXPECT_EQ(cluster_sync_send_update(connection, nullptr, nullptr, 0), EBUSY);
  EXPECT_EQ(cluster_sync_put_begin(connection, name.c_str(), 0600), EBUSY);
  EXPECT_EQ(cluster_sync_withdraw(connection), ETIMEDOUT);
  EXPECT_EQ(names_in(folder).size(), 0u) << "nothing that a late rename could find";
  g_turn.release();
  EXPECT_EQ(cluster_sync_receive(connection, -1, nullptr, nullptr), EPROTO);

  const std::string source = make_file(1, "TempUpdate_own", "new");
  EXPECT_EQ(cluster_sync_update(nullptr, source.c_str(), name.c_str(), 20, nullptr), ETIMEDOUT);
  g_turn.release();
  while (exists(source))
    usleep(1000);
  EXPECT_EQ(cluster_sync_delete(nullptr, name.c_str(), 20, nullptr), EINPROGRESS);
  g_turn.release();
  for (const auto& [path, error] : {std::pair(name + "/", EISDIR),
                                    {folder + "TempUpdate_x", EINVAL},
                                    {tree_path(2, "x"), EPERM},
                                    {folder + "none/x", ENOENT},
                                    {"/mnt/x", EXDEV},
                                    {folder + "link", ELOOP},
                                    {folder + "dir", EISDIR},
                                    {name + "/x", ENOTDIR}}) {
    symlink("name", (folder + "link").c_str());
    mkdir((folder + "dir").c_str(), 0755);
    EXPECT_EQ(cluster_sync_put_begin(connection, path.c_str(), 0600), error) << path;
  }
  EXPECT_EQ(cluster_sync_put_begin(connection, nullptr, 0600), EINVAL);
  EXPECT_EQ(cluster_sync_send_diag(connection, nullptr, 0), EINVAL);
  cluster_sync_close(connection);
}

// Replacing a directory with a symlink during a put has no effect outside the tree, and no file is
// left.
TEST_F(CtlTest, APutWritesNothingOutsideItsTree) {
  make_file(1, "dir/name", "old");
  mkdir("/mnt/outside", 0755);
  write_file("/mnt/outside/name", "precious");
  const std::string folder = tree_path(1, "dir"), aside = tree_path(1, "aside");
  cluster_sync_connection* connection = nullptr;
  ASSERT_EQ(cluster_sync_open(nullptr, 1000, &connection), 0);
  ASSERT_EQ(cluster_sync_put_begin(connection, (folder + "/name").c_str(), 0644), 0);
  rename(folder.c_str(), aside.c_str());
  fs::create_symlink("/mnt/outside", folder);
  EXPECT_EQ(cluster_sync_put_write(connection, "new", 3), 0);
  EXPECT_EQ(cluster_sync_put_send(connection, 0), 0);
  EXPECT_EQ(names_in("/mnt/outside"), std::set<std::string>{"name"});
  EXPECT_EQ(names_in(aside).size(), 2u) << "beside the file that it was begun for";
  cluster_sync_close(connection);
  EXPECT_EQ(names_in(aside), std::set<std::string>{"name"});
  g_turn.release();
}

TEST_F(CtlTest, TheLibraryGivesReasonsThatProgramsCanActOn) {
  cluster_sync_result result = {};
  for (const auto& [applied, text, reason] : std::vector<std::tuple<int, const char*, int>>{
           {0, "Attempt to update shared replicated area while not active '/x'",
            CLUSTER_SYNC_NOT_ACTIVE},
           {0, "Too many RPC calls are already waiting", CLUSTER_SYNC_BUSY},
           {0, "Could not update file (Invalid argument): /x", CLUSTER_SYNC_NOT_REPLICATED},
           {0, "Could not update file '/x': Paths cannot contain digest prefix",
            CLUSTER_SYNC_NOT_REPLICATED},
           {0, "Could not update file (Invalid cross-device link): /x",
            CLUSTER_SYNC_OTHER_FILE_SYSTEM},
           {0, "Could not delete file (No such file or directory): /x", CLUSTER_SYNC_NO_SUCH_FILE},
           {0, "Could not update file (No space left on device): /x", CLUSTER_SYNC_ERROR_HERE},
           {1, "Could not update file (Input/output error): /x", CLUSTER_SYNC_ERROR_HERE},
           {1, "Unable to update file (No space left on device): /x", CLUSTER_SYNC_ERROR_THERE},
           {1, "Operation timed out", CLUSTER_SYNC_TIMED_OUT},
           {1, "Received early LOCK_REL message in state ST_UPDATE", CLUSTER_SYNC_PROTOCOL},
           {1, "", CLUSTER_SYNC_OTHER}}) {
    result.local_ok = static_cast<uint8_t>(applied);
    snprintf(result.reason, sizeof result.reason, "%s", text);
    EXPECT_EQ(cluster_sync_reason(ECANCELED, &result), reason) << text;
  }
  for (const auto& [error, reason] : {std::pair(0, CLUSTER_SYNC_NO_REASON),
                                      {EXDEV, CLUSTER_SYNC_NOT_REPLICATED},
                                      {ENOSPC, CLUSTER_SYNC_ERROR_HERE},
                                      {ECONNREFUSED, CLUSTER_SYNC_NO_DAEMON},
                                      {EINPROGRESS, CLUSTER_SYNC_TIMED_OUT},
                                      {ECANCELED, CLUSTER_SYNC_OTHER}})
    EXPECT_EQ(cluster_sync_reason(error, nullptr), reason) << error;
  EXPECT_STREQ(cluster_sync_version(), CLUSTER_SYNC_VERSION);
}

TEST_F(CtlTest, TheLibraryServesSeveralThreadsAtOnce) {
  constexpr int kThreads = 4;
  answer_with(0, result_bytes());
  g_turn.release(kThreads - 1);
  std::vector<std::jthread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([name = "/run/replicated_by_active_em/" + std::to_string(i)] {
      EXPECT_EQ(
          cluster_sync_put(nullptr, name.data(), name.size(), name.c_str(), 0600, 9000, nullptr),
          0);
      EXPECT_EQ(read_file(name), name);
    });
}

TEST_F(CtlTest, FaultAndStatusTellWhetherReplicationWorks) {
  EXPECT_EQ(run("fault"), 0) << "nothing is recorded yet";
  for (const auto& [fault_id, status, size, exit_status] : {std::tuple(0x000F0018u, 1u, 1036u, 0),
                                                            {0x000F0018u, 4u, 1036u, 1},
                                                            {0x000F0018u, 3u, 1036u, 3},
                                                            {0x000F0019u, 1u, 1036u, 3},
                                                            {0x000F0018u, 1u, 1035u, 3},
                                                            {0x000F0018u, 1u, 1037u, 3}}) {
    record_fault(status, fault_id, size);
    EXPECT_EQ(run("fault"), exit_status) << fault_id << " " << status << " " << size;
  }
  StateRecord state = {};
  state.size = sizeof state;
  state.joined = state.peer_present = 1;
  state.last_success_age = 3;
  state.last_error_age = state.resync_in = -1;
  state.member_count = 2;
  state.members[0] = {1, 12};
  state.members[1] = {2, 34};
  state.counters.filesys_bytes_scanned = uint64_t{1} << 40;
  strcpy(state.version, "1.2.3");
  unlink("/var/run/em/number");
  for (const auto& [status, fault, role, field, value, exit_status] :
       {std::tuple(0u, 1u, "active", &state.waiting, 7, 0),
        {0u, 4u, "active", &state.waiting, 7, 1},
        {0u, 4u, "standby", &state.waiting, 7, 0},
        {0u, 1u, "standby", &state.last_error_age, 2, 1},
        {0u, 1u, "active", &state.consecutive_errors, 1, 1},
        {6u, 1u, "standby", &state.waiting, 7, 3}}) {
    record_fault(fault);
    EXPECT_EQ(run(std::string("role --force ") + role), 0);
    EXPECT_EQ(exists("/var/run/em/active"), *role == 'a');
    const int32_t before = std::exchange(*field, value);
    EXPECT_EQ(run_answered("status", status, bytes_of_state(state)), exit_status) << out_;
    *field = before;
    EXPECT_EQ(request_, "2");
  }
  for (uint32_t* flag : {&state.peer_present, &state.joined, &state.hung, &state.both_active}) {
    const uint32_t before = std::exchange(*flag, *flag ^ 1);
    EXPECT_EQ(run_answered("status", 0, bytes_of_state(state)), 1) << out_;
    *flag = before;
  }
  EXPECT_EQ(run_answered("status", 0, bytes_of_state(state).substr(0, 300)), 3);
  write_file("/var/run/em/number", "3\n");
  EXPECT_EQ(run_answered("status", 0, bytes_of_state(state)), 1) << out_;
  write_file("/var/run/em/number", "1\n");
  state.last_error_age = 4;
  strcpy(state.last_error, "Operation timed out");
  strcpy(state.last_cause, "could not open file (I/O): \x9b\n");
  ASSERT_EQ(run_answered("status", 0, bytes_of_state(state)), 0) << out_;
  EXPECT_TRUE(
      shows("\nfault:    replication with EM 2 is healthy, recorded when this EM was "
            "active\nstate:    standby, all is well\nexchange: idle for 0 s, last success "
            "with the other EM 3 s ago\nerror:    4 s ago: Operation timed out; the cause: "
            "could not open file (I/O): \\x9b\\x0a\ngroup:    2 members: node 1 pid 12, "
            "node 2 pid 34\n"));
  ASSERT_EQ(run_answered("status --json", 0, bytes_of_state(state)), 0);
  for (const char* part : {R"("version":"1.2.3")", R"("last_error":{"text":"Operation timed out",)",
                           R"("resync_in":null)", R"("filesys_bytes_scanned":1099511627776)",
                           R"("members":[{"node":1,"pid":12},{"node":2,"pid":34}])"})
    EXPECT_TRUE(shows(part));
  ASSERT_EQ(run_answered("metrics --textfile m.prom", 0, bytes_of_state(state)), 0) << out_;
  EXPECT_EQ(mode_of("/mnt/m.prom"), 0644u);
  const std::string metrics = read_file("/mnt/m.prom");
  for (const char* line : {"\ncluster_sync_filesys_bytes_scanned_total 1099511627776\n",
                           "\ncluster_sync_last_success_age_seconds 3\n", "\ncluster_sync_up 1\n"})
    EXPECT_NE(("\n" + metrics).find(line), std::string::npos) << metrics;
  cluster_sync_state taken;
  state.size += 3;
  answer_with(0, bytes_of_state(state) + "new");
  EXPECT_EQ(cluster_sync_get_state(nullptr, 9000, &taken, sizeof taken), 0);
  EXPECT_STREQ(taken.last_error, "Operation timed out");
  EXPECT_EQ(run("role standby"), 0) << "as it is already";
}

TEST_F(CtlTest, CompareNamesWhatDiffersOrSaysThatNobodyCanTell) {
  const std::string good = result_bytes(), equal = "=active 2 2 0 0 0;=volatile 0 0 0 0 0;";
  const std::string rest = "=own 1 1 0 0 0;=copy 3 2 1 0 1;";
  for (const auto& [payload, report, exit_status, out] :
       std::vector<std::tuple<std::string, std::string, int, std::string>>{
           {good, equal + rest, 0,
            "active          2 here       2 there       0 only here       0 only there       0 "
            "differ"},
           {good, equal + rest + "<copy/a\nb/ c;!copy/d/e;", 1, "< copy/a\\x0ab/ c\n! copy/d/e\n"},
           {result_bytes(0, "", 'N'), "", 3, "cannot compare: the other enclosure manager is away"},
           {result_bytes(4, "Operation timed out", 'Y'), "", 3, "compare: Operation timed out"},
           {good, "", 3, "cannot be understood"},
           {good, equal, 3, "cannot be understood"},
           {good, equal + rest + "?copy/x;", 3, "cannot be understood"},
           {good, equal + rest + "<copy;", 3, "cannot be understood"},
           {good, "=active 2 2 0 0 0 0;" + rest + rest, 3, "cannot be understood"}}) {
    g_report = report;
    EXPECT_EQ(run_answered("compare 2>&1", 0, payload), exit_status) << report;
    EXPECT_TRUE(shows(out));
    EXPECT_EQ(request_, "3");
  }
}

TEST_F(CtlTest, ARoleThatWouldEmptyTheOtherEmIsRefused) {
  const std::string good = result_bytes(), tail = "=own 0 0 0 0 0;=copy 0 99 0 99 0;";
  const auto become_active = [&](const std::string& report, const std::string& payload) {
    g_report = report.empty() ? "" : report + tail;
    unlink("/var/run/em/active");
    const int exit_status = run_answered("role active 2>&1", 0, payload);
    EXPECT_EQ(exists("/var/run/em/active"), exit_status == 0);
    return exit_status;
  };
  EXPECT_EQ(become_active("=active 0 20 0 20 0;=volatile 0 0 0 0 0;", good), 1);
  EXPECT_EQ(
      out_,
      "cluster_sync_ctl: becoming active would delete 20 of 20 files that the other EM has in "
      "'active'; use --force to make this EM active anyway\n");
  EXPECT_EQ(become_active("=active 9 9 0 0 0;=volatile 10 21 0 11 0;", good), 1);
  EXPECT_TRUE(shows("11 of 21 files that the other EM has in 'volatile'"));
  EXPECT_EQ(become_active("=active 0 10 0 10 0;=volatile 11 22 0 11 0;", good), 0) << out_;
  EXPECT_EQ(run("role active"), 0) << "it is already: nothing is asked";
  EXPECT_EQ(become_active("", result_bytes(0, "", 'N')), 0) << "a failover does not wait";
  EXPECT_EQ(become_active("", result_bytes(4, "no", 'Y')), 0);
  EXPECT_TRUE(shows("not compared with the other EM: no"));

  unlink("/var/run/em/active");
  fs::rename(tree_path(3, ""), "/run/gone");
  EXPECT_EQ(run("role active 2>&1"), 1);
  EXPECT_TRUE(shows("/var/run/replicated_by_active_em/ is missing"));
  write_file("/mnt/fstab", "/dev/sda3 /mnt/part.persistent ext4 defaults 0 2\n");
  const Mount fstab("/etc/fstab", nullptr, "/mnt/fstab");
  EXPECT_EQ(run("role active 2>&1"), 1);
  EXPECT_TRUE(shows("but nothing is mounted there"));
  EXPECT_EQ(run("role active --force"), 0);
  EXPECT_TRUE(exists("/var/run/em/active"));
}

// A line of the trace for a message.
std::string traced(const char* when, const char* state, const char* message, const char* ids) {
  char line[200];
  snprintf(line, sizeof line,
           "on_sync_state_change:1: %-5s state change: %-12s %-21s RPC_IDLE         %s", when,
           state, message, ids);
  return line;
}

// The logs of both daemons for a put that the second one cannot write.
const Lines kAsking = {
    "on_cpg_config:238: CPG config change [em-sync]: flags=05",
    "rename_to_destination:115: SYNC RPC rename: src=/var/run/replicated_by_active_em/TempUpdate_5 "
    "dest=/var/run/replicated_by_active_em/cfg",
    "on_sync_req:76: Starting new exchange id=14 active=1",
    traced("Enter", "ST_LOCKREQ", "self:MSG_LOCK_REQ", "id=14.0 hid=14.0"),
    "send_update_message:105: Send PUSH_REQ cfg",
    "send_cpg_command:55: Send CPG msg: MSG_UPDATE_REQ   xid=14 sid=1 payload-len=38",
    traced("Enter", "ST_UPDATE", "self:MSG_UPDATE_REQ", "id=14.1 hid=14.1"),
    traced("Enter", "ST_DONE", "self:MSG_LOCK_REL", "id=14.1 hid=14.1"),
    traced("Exit", "ST_UNLOCKED", "self:MSG_LOCK_REL", "id=14.1")};
const Lines kServing = {traced("Enter", "ST_UNLOCKED", "peer:MSG_LOCK_REQ", "id=0.0 hid=14.0"),
                        traced("Enter", "ST_PEERLOCK", "peer:MSG_UPDATE_REQ", "id=0.0 hid=14.1"),
                        "update_file:252: Unable to update file (No space left on device): cfg",
                        traced("Enter", "ST_PEERLOCK", "peer:MSG_LOCK_REL", "id=0.0 hid=14.1")};

void write_log(const char* path, const Lines& lines, const std::string& before,
               const std::string& behind = "") {
  std::string log;
  for (const std::string& line : lines)
    log += before + line + behind + "\n";
  write_file(path, log);
}

TEST_F(CtlTest, ExplainReadsEveryFormatOfTheJournalAndMatchesBothLogs) {
  setenv("TZ", "UTC", 1);
  const std::string json = R"({"MESSAGE":")", export_begin = "__CURSOR=x\n_HOSTNAME=em1\n";
  const std::string fields = R"(","_HOSTNAME":"em1","__REALTIME_TIMESTAMP":"1764000001000051"})";
  for (const auto& [before, behind, row] : std::vector<std::array<std::string, 3>>{
           {"<7> ", "", "  -                    this EM  "},
           {"1764000001 ( 77-sync_thread) ", "", "  2025-11-24 16:00:01  this EM  "},
           {"Nov 24 16:00:01 em1 CLUS_SYNC[77]: ", "", "-11-24 16:00:01  em1  "},
           {"Mon 2025-11-24 16:00:01 UTC em1 CLUS_SYNC[77]: ", "", "2025-11-24 16:00:01  em1  "},
           {"Mon 2025-11-24 16:00:01 UTC em1 cluster_sync_daemon.service[77]: ", "",
            "  2025-11-24 16:00:01  em1  "},
           {"2025-11-24T18:30:01+0230 em1 CLUS_SYNC[77]: ", "", "  2025-11-24 16:00:01  em1  "},
           {"2025-11-24T15:00:01.05-01:00 em1 CLUS_SYNC[77]: ", "", "  2025-11-24 16:00:01  em1  "},
           {"1764000001.000051 em1 CLUS_SYNC[77]: ", "", "  2025-11-24 16:00:01  em1  "},
           {"[    5.000051] em1 CLUS_SYNC[77]: ", "", "  5.000                em1  "},
           {json, fields, "  2025-11-24 16:00:01  em1  "},
           {"data: " + json, fields, "  2025-11-24 16:00:01  em1  "},
           {export_begin + "MESSAGE=", "\n__REALTIME_TIMESTAMP=1764000001000051\n",
            "  2025-11-24 16:00:01  em1  "}}) {
    write_log("/mnt/em1", kAsking, before, behind);
    EXPECT_EQ(run("explain em1"), 0) << before;
    EXPECT_TRUE(shows(row));
    EXPECT_EQ(split(out_, '\n').size(), 2u) << "one exchange, one row: " << out_;
    EXPECT_TRUE(shows(" 1 pushed (2 B) "));
    EXPECT_TRUE(shows("  put cfg: success here, the other EM is away\n"));
  }
  const std::string dumped = "dump_flight_recorder:1: 1764000001 ( 1-sync_thread) ";
  for (const auto& [format, before] : {std::pair("verbose", "Mon [s=1;i=2]\n  MESSAGE="),
                                       {"json-pretty", "{\n\t\"MESSAGE\" : \""}}) {
    write_log("/mnt/em1", kAsking, before + dumped);
    EXPECT_EQ(run("explain em1 2>&1"), 1);
    EXPECT_TRUE(shows(std::string("format ") + format + " is not read"));
  }
  write_log("/mnt/em1", kAsking, "2025-11-24T17:00:01+0100 em1 CLUS_SYNC[77]: ");
  write_log("/mnt/em2", kServing, "2025-11-24T16:00:17+0000 em2 CLUS_SYNC[5]: ");
  EXPECT_EQ(run("explain em1 em2 2>&1"), 0);
  EXPECT_EQ(split(out_, '\n').size(), 3u) << out_;
  EXPECT_TRUE(shows("the clock of em2 is 16 s ahead of that of em1"));
  EXPECT_TRUE(shows("put cfg: FAILED: Unable to update file (No space left on device): cfg\n"));
  EXPECT_EQ(run("explain em1 em2 --exchange 1 --json"), 0);
  EXPECT_TRUE(shows(R"("from":"em1","message":"MSG_UPDATE_REQ","sequence":1,"bytes":38,)"));
  EXPECT_EQ(run("explain em1 em2 --exchange 1 --svg picture"), 0);
  const std::string picture = read_file("/mnt/picture");
  const size_t error = picture.find(">Unable to update");
  const size_t white = picture.rfind("fill=\"white\"", error);
  EXPECT_EQ(picture.substr(white, error - white).find("<line"), std::string::npos) << picture;
}

TEST_F(CtlTest, VerifyListsWhatTheDaemonListsAndNamesTheFilesThatDiffer) {
  make_file(0, "a/full", pattern(kChunkSize));
  make_file(0, "a/b/large", pattern(3 * kChunkSize + 7));
  make_file(1, "secret", "s", 0600);
  make_file(1, "TempUpdate_x", "not replicated");
  make_file(1, ".$SyncDigest$gone", "an orphan, which only the daemon deletes");
  make_file(2, "\xff\xc3", "other");
  make_file(3, "with blanks ", "v");
  fs::create_symlink("secret", tree_path(1, "link"));
  ASSERT_EQ(run("verify --list > list"), 0);
  EXPECT_TRUE(exists(tree_path(1, ".$SyncDigest$gone")));
  const std::string list = read_file("/mnt/list");
  EXPECT_NE(list.find("1 " SHA256_S " 00000000 00000001 P secret\n"), std::string::npos) << list;
  Lines lines = split(list, '\n');
  EXPECT_EQ(lines[0].find("cluster_sync trees of EM 1, SHA-256, begun at "), 0u) << lines[0];
  EXPECT_EQ(lines.back(), "end of trees, lines: " + std::to_string(lines.size() - 2));
  lines.erase(lines.begin());
  lines.pop_back();
  for (std::string& line : lines)
    line.erase(2, 64);
  Lines scanned = scan_lines(ctx);
  for (std::string& line : scanned) {
    line[0] = line[0] == 'Q' ? '1' : line[0] == 'P' ? '2' : line[0];
    line.erase(2, 40);
    line = escape_control_bytes(line);
  }
  EXPECT_EQ(std::multiset(lines.begin(), lines.end()),
            std::multiset(scanned.begin(), scanned.end()))
      << "all but the digests is as in the daemon's listing";

  EXPECT_EQ(run("verify --against list 2>&1"), 0);
  EXPECT_TRUE(shows("both EMs have the same number"));
  rename(tree_path(0, "a/full").c_str(), "/mnt/full");
  make_file(0, "a/full", pattern(kChunkSize, 1));
  chmod(tree_path(1, "secret").c_str(), 0644);
  unlink(tree_path(3, "with blanks ").c_str());
  make_file(2, "new\nline", "");
  make_file(2, "new\\x0aline", "");
  EXPECT_EQ(run("verify --against - < list"), 1);
  EXPECT_EQ(out_,
            "em1/secret: changed meanwhile\nem2/new\\x0aline: changed meanwhile\n"
            "em2/new\\x5cx0aline: changed meanwhile\nactive/a/full: changed meanwhile\n"
            "volatile/with blanks : only there\n1 files differ\n");
  make_file(3, "with blanks ", "v");
  EXPECT_EQ(run("verify --against list"), 0) << "what was made after the list is no difference";
  // A list that was begun later and arrives only when the trees here were read. One file is
  // corrected before the second check.
  const size_t begun = list.find("begun at ") + strlen("begun at ");
  write_file("/mnt/later", list.substr(0, begun) + "9" + list.substr(begun));
  mkfifo("/mnt/fifo", 0600);
  EXPECT_EQ(run("--help > /dev/null; (cat later > fifo; mv full " + tree_path(0, "a/full") +
                ") & " + program() + " verify --against fifo"),
            1);
  EXPECT_EQ(out_,
            "em1/secret: the mode differs\n"
            "em2/new\\x0aline: only here\nem2/new\\x5cx0aline: only here\n3 files differ\n");
  write_file("/mnt/list", list.substr(0, list.rfind(' ')) + " 1\n");
  EXPECT_EQ(run("verify --against list"), 3) << "not the whole list";
  fs::create_directories(tree_path(1, "1/2/3/4/5/6/7/8/9/a/b/c/d/e/f/g/too deep"));
  EXPECT_EQ(run("verify"), 3) << "not all of the trees can be read";
}
