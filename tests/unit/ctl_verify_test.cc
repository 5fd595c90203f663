#include <algorithm>
#include <filesystem>
#include <sstream>

#include "tests/unit/ctl_support.h"
#include "tests/unit/daemon_support.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  return lines;
}

class CtlVerifyTest : public DaemonTest {
 protected:
  static void be_em(int number) {
    write_file("/var/run/em/number", std::to_string(number));
  }

  // Makes the trees what the other EM would have: each EM's own tree is the other's copy.
  static void become_other_em(int number) {
    fs::rename(root_paths[kThisEmRoot], "/mnt/part.persistent/aside");
    fs::rename(root_paths[kOtherEmRoot], root_paths[kThisEmRoot]);
    fs::rename("/mnt/part.persistent/aside", root_paths[kOtherEmRoot]);
    be_em(number);
  }

  // Everything that stands in the trees, with sizes and times.
  static std::vector<std::string> traces() {
    std::vector<std::string> all;
    for (const char* root : root_paths) {
      for (const auto& entry : fs::recursive_directory_iterator(root)) {
        struct stat info;
        lstat(entry.path().c_str(), &info);
        all.push_back(entry.path().string() + " " + std::to_string(info.st_size) + " " +
                      std::to_string(info.st_mtim.tv_sec) + "." +
                      std::to_string(info.st_mtim.tv_nsec));
      }
    }
    std::sort(all.begin(), all.end());
    return all;
  }

  static void make_trees() {
    make_file(kActivePersistentRoot, "empty", "");
    make_file(kActivePersistentRoot, "a/b/large", pattern(3 * kChunkSize + 7));
    make_file(kActivePersistentRoot, "a/full", pattern(kChunkSize));
    make_file(kActiveVolatileRoot, "with blanks ", "v");
    make_file(kThisEmRoot, "secret", "s", 0600);
    make_file(kThisEmRoot, "d/TempUpdate_x", "not replicated");
    make_file(kThisEmRoot, "TempUpdate_dir/x", "not replicated");
    make_file(kOtherEmRoot, "\xff\xc3", "other");
    ASSERT_EQ(symlink("secret", tree_path(kThisEmRoot, "link").c_str()), 0);
    ASSERT_EQ(mkfifo(tree_path(kThisEmRoot, "fifo").c_str(), 0644), 0);
  }
};

TEST_F(CtlVerifyTest, ListsWhatTheDaemonListsAndLeavesNoTrace) {
  make_trees();
  make_file(kOtherEmRoot, ".$SyncDigest$gone", "an orphan the daemon would delete");
  for (const int em : {1, 2}) {
    be_em(em);
    const std::vector<std::string> before = traces();
    std::vector<std::string> lines = lines_of(run_ctl({"verify", "--list"}).out);
    EXPECT_EQ(traces(), before);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(), "cluster_sync trees of EM " + std::to_string(em));
    EXPECT_EQ(lines.back(), "end of trees, lines: " + std::to_string(lines.size() - 2));
    lines.erase(lines.begin());
    lines.pop_back();

    // The second time most come from the digest cache files that the first scan has written.
    std::vector<std::string> scanned = scan_lines(ctx);
    for (std::string& line : scanned) {
      if (line[0] == 'Q') line[0] = em == 1 ? '1' : '2';
      if (line[0] == 'P') line[0] = em == 1 ? '2' : '1';
    }
    std::sort(lines.begin(), lines.end());
    std::sort(scanned.begin(), scanned.end());
    EXPECT_EQ(lines, scanned);
  }
}

TEST_F(CtlVerifyTest, BothEmsGiveTheSameDigests) {
  make_trees();
  be_em(1);
  const Outcome first = run_ctl({"verify"});
  const std::string json = run_ctl({"--json", "verify"}).out;
  EXPECT_EQ(first.status, 0);
  EXPECT_EQ(lines_of(first.out).size(), 4u);
  EXPECT_TRUE(first.out.starts_with("active            3 files          262151 bytes  "))
      << first.out;
  become_other_em(2);
  EXPECT_EQ(run_ctl({"verify"}).out, first.out);
  EXPECT_EQ(run_ctl({"--json", "verify"}).out, json);

  // A change that the daemon's caches hide: neither size nor time moves.
  scan_lines(ctx);
  const std::string path = tree_path(kActivePersistentRoot, "a/b/large");
  const auto time = fs::last_write_time(path);
  std::fstream(path, std::ios::in | std::ios::out | std::ios::binary) << "#";
  fs::last_write_time(path, time);
  EXPECT_NE(run_ctl({"verify"}).out, first.out);
}

TEST_F(CtlVerifyTest, NamesTheFilesThatDiffer) {
  make_trees();
  be_em(1);
  run_ctl({"verify", "--list"});
  fs::rename("/run/stdout", "/run/saved");
  EXPECT_EQ(run_ctl({"verify", "--against", "/run/saved"}).out, "no difference\n");
  become_other_em(2);
  EXPECT_EQ(run_ctl({"verify", "--against", "/run/saved"}).status, 0);

  make_file(kActivePersistentRoot, "a/full", pattern(kChunkSize, 1));
  chmod(tree_path(kActivePersistentRoot, "empty").c_str(), 0600);
  unlink(tree_path(kActiveVolatileRoot, "with blanks ").c_str());
  make_file(kThisEmRoot, "new\nline", "");
  make_file(kThisEmRoot, "new\\x0aline", "");
  const Outcome run = run_ctl({"verify", "--against", "-"}, "/run/saved");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out,
            "active/a/full: the content differs\n"
            "active/empty: the mode differs\n"
            "em2/new\\x0aline: only here\n"
            "em2/new\\x5cx0aline: only here\n"
            "volatile/with blanks : only there\n"
            "5 files differ\n");
  const std::string json = run_ctl({"--json", "verify", "--against", "/run/saved"}).out;
  EXPECT_NE(json.find(R"({"tree":"volatile","path":"with blanks ","what":"only there"})"),
            std::string::npos)
      << json;
}

TEST_F(CtlVerifyTest, TellsWhatItCannotCompareOrRead) {
  make_trees();
  const std::string whole = run_ctl({"verify", "--list"}).out;
  std::string one_line_less = whole;
  one_line_less.erase(whole.find("\nA ") + 1,
                      whole.find("\nA ", whole.find("\nA ") + 1) - whole.find("\nA "));
  for (const std::string& broken :
       {std::string(), whole.substr(0, whole.size() - 3), whole.substr(0, whole.rfind("end of")),
        whole.substr(whole.find('\n') + 1), one_line_less, "x" + whole,
        std::string("cluster_sync trees of EM 1\nA short\nend of trees, lines: 1\n")}) {
    write_file("/run/saved", broken);
    EXPECT_EQ(run_ctl({"verify", "--against", "/run/saved"}).status, 3) << broken;
    EXPECT_EQ(read_file("/run/stdout"), "");
  }
  EXPECT_EQ(run_ctl({"verify", "--against", "/run/absent"}).status, 3);

  std::string deep;
  for (int i = 0; i < 17; ++i)
    deep += "d/";
  fs::create_directories(tree_path(kThisEmRoot, deep));
  EXPECT_EQ(run_ctl({"verify"}).status, 3);
  fs::remove_all(tree_path(kThisEmRoot, "d"));
  EXPECT_EQ(run_ctl({"verify"}).status, 0);
  const std::string large = make_file(kOtherEmRoot, "large", "");
  fs::resize_file(large, uintmax_t{1} << 32);
  EXPECT_EQ(run_ctl({"--json", "verify"}).out,
            "{\"error\":\"the trees could not be read in full\"}\n");
  unlink(large.c_str());
  fs::remove_all(root_paths[kActiveVolatileRoot]);
  EXPECT_EQ(run_ctl({"verify"}).status, 3);
  EXPECT_EQ(read_file("/run/stderr"),
            "cluster_sync_ctl: could not open directory (No such file or directory): "
            "/var/run/replicated_by_active_em\n"
            "cluster_sync_ctl: the trees could not be read in full\n");
}

}  // namespace
