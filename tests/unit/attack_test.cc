// A user who may write to a tree replaces a directory with a symlink while the daemon works there.
// Nothing outside the trees is read or changed, whatever call it happens at.

#include <linux/filter.h>
#include <linux/openat2.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include "redundancy_health/catalog/pinned_path.h"
#include "redundancy_health/exchange/reconcile.h"
#include "redundancy_health/exchange/state_machine.h"
#include "tests/unit/call_hook.h"
#include "tests/unit/daemon_support.h"

namespace {

const std::string kOutside = "/mnt/outside/";  // on the file system of the persistent trees

// Kernels before 5.6 and the emulator of the ARM build do not have openat2.
void take_openat2_away() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program = {std::size(filter), filter};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
  open_how how = {};
  EXPECT_EQ(syscall(SYS_openat2, AT_FDCWD, "/", &how, sizeof how), -1);
  EXPECT_EQ(errno, ENOSYS);
}

class AttackTest : public DaemonTest {
 protected:
  ~AttackTest() override {
    g_before_call = nullptr;
    fs::remove_all(kOutside);
  }

  void plant() {
    fs::remove_all(kOutside);
    fs::create_directories(kOutside + "sub");
    for (const char* name : {"f", "g", "TempUpdate_1", ".$SyncDigest$f", "sub/f"})
      write_file(kOutside + name, "outside");
    write_file(kOutside + "secret", std::string(100000, 'o'));
    for (const uint32_t root : {0u, 1u, 2u}) {
      fs::remove_all(root_paths[root]);
      for (const char* name : {"f", "g", "TempUpdate_1", ".$SyncDigest$f", "sub/f"})
        make_file(root, std::string("d/") + name, "inside");
    }
    make_file(0, "d/large", std::string(100000, 'i'));
    g_cpg.sent.clear();
    release_kept_directory();
    reset_cpg_result(ctx);
    ctx->cur_state = ST_UNLOCKED;
  }

  // Everything outside with all its attributes except access times.
  static std::string outside() {
    std::string all;
    for (const auto& entry : fs::recursive_directory_iterator(kOutside)) {
      struct stat info;
      lstat(entry.path().c_str(), &info);
      all += entry.path().string() + " " + std::to_string(info.st_ino) + " " +
             std::to_string(info.st_mode) + " " + std::to_string(info.st_ctim.tv_sec) + "." +
             std::to_string(info.st_ctim.tv_nsec) + "\n";
    }
    return all;
  }

  static void swap_directories() {
    for (const uint32_t root : {0u, 1u, 2u}) {
      const std::string d = tree_path(root, "d");
      ::rename(d.c_str(), (d + ".moved").c_str());
      fs::create_symlink(kOutside, d);
    }
  }

  // Does `work` once for each of its calls, with the swap at that call.
  void attack(const char* what, const std::function<void()>& work) {
    for (int moment = 0, calls = 1; moment < calls; ++moment) {
      SCOPED_TRACE(std::string(what) + ", call " + std::to_string(moment));
      plant();
      const std::string before = outside();
      calls = 0;
      g_before_call = [&](const std::string&) {
        if (calls++ == moment) swap_directories();
        return 0;
      };
      work();
      g_before_call = nullptr;
      EXPECT_EQ(outside(), before);
      for (const auto& [header, payload] : g_cpg.sent)
        EXPECT_EQ(payload.find("outside") + payload.find("secret"), 2 * std::string::npos);
      ASSERT_GT(calls, 0);
    }
  }

  void attack_everything() {
    const std::string nul(1, '\0'), own = root_paths[1];
    const std::pair<const char*, std::string> updates[] = {
        {"a whole file", update(PUSH_REQ, 0, "d/f", 0, 3, 3, "new")},
        {"a chunk", update(PUSH_REQ, 0, "d/f", 0, 3, 9, "new")},
        {"a new directory", update(PUSH_REQ, 0, "d/new/f", 0, 3, 3, "new")},
        {"a file for a directory", update(PUSH_REQ, 0, "d", 0, 3, 3, "new")},
        {"a file for a directory below", update(PUSH_REQ, 0, "d/sub", 0, 3, 9, "new")},
        {"a deletion", update(PUSH_DEL_REQ, 0, "d/f", 0, 3, 3)},
        {"a chunk that is read", update(PULL_REQ, 0, "d/f", 0, 6, 6)},
    };
    for (const auto& [what, payload] : updates)
      attack(what, [&, bytes = payload] { receive(bytes); });
    attack("the listing", [&] { receive(nul + nul, MSG_LISTING_REQ); });
    attack("a repeated rename",
           [&] { receive(own + "d/g" + nul + own + "d/f" + nul, MSG_LISTING_REQ); });
    attack("copies that the owner has deleted", [&] { compare_synced_files(ctx, nullptr, 0); });
    attack("a request to rename", [&] { request(own + "d/TempUpdate_1", own + "d/f"); });
    attack("a request to delete", [&] { request("", own + "d/f"); });
  }
};

}  // namespace

TEST_F(AttackTest, ADirectoryThatBecomesALinkLeadsNowhere) {
  attack_everything();
}

TEST_F(AttackTest, NorDoesItOnAnOlderKernel) {
  EXPECT_EQ(run_forked([this] {
              take_openat2_away();
              attack_everything();
              return HasFailure() ? 1 : 0;
            }),
            0);
}

TEST_F(AttackTest, AFileThatBecomesALinkToOneOutsideIsNotWritten) {
  const std::string held = update(PUSH_REQ, 0, "d/f", 0, 3, 9, "new", kRestricted);  // renewed
  const std::string made = update(PUSH_REQ, 0, "d/new", 0, 3, 9, "new");
  for (const auto& [name, payload] : {std::pair("d/f", held), {"d/new", made}}) {
    for (int moment = 0, calls = 1; moment < calls; ++moment) {
      plant();
      calls = 0;
      g_before_call = [&, path = tree_path(0, name)](const std::string&) {
        if (calls++ != moment) return 0;
        fs::remove(path);
        fs::create_hard_link(kOutside + "f", path);
        return 0;
      };
      receive(payload);
      g_before_call = nullptr;
      EXPECT_EQ(read_file(kOutside + "f"), "outside") << name << ", call " << moment;
    }
  }
}

// A directory that is kept open is not used after it was removed.
TEST_F(AttackTest, AKeptDirectoryIsOpenedAnewWhenItWasRemoved) {
  PinnedPath file;
  const std::string path = make_file(0, "d/f", "old");
  ASSERT_EQ(pin_path(0, path.c_str(), &file), 0);
  fs::remove_all(tree_path(0, "d"));
  EXPECT_EQ(pin_path(0, path.c_str(), &file), ENOENT);
  make_file(0, "d/f", "new");
  ASSERT_EQ(pin_path(0, path.c_str(), &file), 0);
  EXPECT_EQ(faccessat(file.dir_fd(), file.name, F_OK, 0), 0);
}
