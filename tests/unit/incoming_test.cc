#include "redundancy_health/transfer/incoming.h"

#include <string.h>
#include <sys/mount.h>

#include <sstream>
#include <tuple>

#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/statistics.h"
#include "tests/unit/daemon_support.h"
#include "tests/unit/update_bytes.h"

namespace {

using Texts = std::vector<std::string>;

class IncomingTest : public DaemonTest {
 protected:
  IncomingTest() {
    ctx->cur_exchange_id = 0x11;
    ctx->peer_exchange_id = 0x33;
    ctx->peer_sequence_id = 0x44;
  }

  void receive(const std::string& payload) {
    g_cpg.sent.clear();
    reset_cpg_result(ctx);
    ctx->cur_state = ST_PEERLOCK;
    on_update_chunk(ctx, reinterpret_cast<const uint8_t*>(payload.data()),
                    static_cast<uint32_t>(payload.size()));
  }

  // One answer, `payload`, went out for the request received last; with `reason` it is a failure.
  void expect_answer(const std::string& payload, const std::string& reason = "") {
    ASSERT_EQ(g_cpg.sent.size(), 1u);
    EXPECT_EQ(sent_messages()[0], "MSG_UPDATE_ACK 51.68");
    EXPECT_EQ(g_cpg.sent[0].payload, payload);
    const RpcResult& result = g_cpg.sent[0].header.result;
    EXPECT_EQ(result.reason, reason.substr(0, 115));
    EXPECT_EQ(result.success, reason.empty());
    EXPECT_EQ(result.local_ok, 1) << "code 20 if any";
    EXPECT_EQ(memcmp(&result, &ctx->cpg_result, sizeof(RpcResult)), 0);
  }

  void expect_push_answer(uint32_t root, const std::string& path, const std::string& reason = "") {
    expect_answer(update(3, root, path, 0, 0, 0), reason);
  }

  // Has a file of root 0 deleted; `error` is empty for success.
  void expect_deletion(const std::string& path, const std::string& error) {
    receive(update(4, 0, path, 0, 3, 7));
    expect_answer(
        update(5, 0, path, 0, 0, 0),
        error.empty() ? "" : "Unable to delete file (" + error + "): " + tree_path(0, path));
  }

  static std::string push(uint32_t root, const std::string& path, const std::string& data) {
    const auto size = static_cast<uint32_t>(data.size());
    return update(2, root, path, 0, size, size, data);
  }
};

TEST_F(IncomingTest, MalformedMessagesEndTheExchangeAndTouchNothing) {
  const std::string kept = make_file(0, "kept", "kept");
  write_file("/mnt/part.persistent/outside", "kept");
  const std::string whole = update(4, 0, "kept", 0, 0, 0);
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {"Received malformed UPDATE_REQ message",
       {"", std::string(32, '\0'), whole.substr(0, whole.size() - 1), update(4, 4, "kept", 0, 0, 0),
        update(0, 0xFFFFFFFF, "kept", 1, 0, 0),
        update(4, 0, "/mnt/part.persistent/outside", 0, 0, 0), update(4, 0, "../outside", 0, 0, 0),
        push(0, "d/../../outside", "x"), update(0, 0, "../outside", 0, 4, 4),
        // What no scan could list would fail every later exchange.
        push(0, ".$SyncDigest$kept", "x"), push(0, "d/" + std::string(243, 'n'), "x"),
        push(0, "1/2/3/4/5/6/7/8/9/a/b/c/d/e/f/g/h/f", "x"), push(0, " \n", "x"),
        push(0, "\t/f", "x"), push(0, " ../f", "x")}},
      {"Chunk size in request header too large",
       {update(0, 0, "kept", 0, 65537, 0), update(4, 0, "kept", 1, 0, 0),
        update(2, 0, "kept", 0xFFFFFFFF, 0xFFFF, 0)}},
  };
  for (const auto& [reason, payloads] : cases) {
    for (const std::string& payload : payloads) {
      receive(payload);
      EXPECT_STREQ(ctx->cpg_result.reason, reason);
      EXPECT_EQ(sent_messages(), Texts({"MSG_LOCK_REL 17.0"})) << reason;
      EXPECT_EQ(ctx->cur_state, ST_DONE);
    }
  }
  for (const uint32_t type : {3u, 5u, 6u, 7u, 0xFFFFFFFFu}) {
    receive(update(type, 0, "kept", 0, 1, 1, "x"));
    EXPECT_EQ(g_cpg.sent.size(), 0u) << "another type does nothing: " << type;
    EXPECT_EQ(ctx->cpg_result.success, 1);
  }
  EXPECT_EQ(read_file(kept), "kept");
  EXPECT_EQ(read_file("/mnt/part.persistent/outside"), "kept");
  unlink("/mnt/part.persistent/outside");
}

TEST_F(IncomingTest, PushedFilesAndChunks) {
  const std::string zeros(16, '\0');
  const std::string edge = "1/2/3/4/5/6/7/8/9/a/b/c/d/e/f/g/" + std::string(242, 'n');
  const struct {
    uint32_t root;  // the sender's
    uint32_t local_root;
    std::string path;
    const char* existing;  // null: the file is new; else its content, mode 0640
    std::string payload;
    std::string content;
    int mode;
  } cases[] = {
      {0, 0, "a/b/c", nullptr, push(0, "a/b/c", "data"), "data", 0644},
      {1, 2, "f", "old content", push(1, "f", "data"), "data", 0644},
      {2, 1, "f", "old", update(2, 2, "f", 0, 1, 1, "x", kRestricted), "x", 0600},
      {3, 3, "f", "old", push(3, "f", ""), "", 0644},
      {0, 0, edge, nullptr, push(0, edge, "x"), "x", 0644},
      // From here on chunks that are not the whole file.
      {0, 0, "n/f", nullptr, update(2, 0, "n/f", 0, 3, 4, "abc", kRestricted),
       "abc" + zeros.substr(0, 1), 0600},
      {0, 0, "f", "abcdefghij", update(2, 0, "f", 3, 5, 6, "XY"), "abcXYf", 0640},
      {0, 0, "f", "abcdefghij", update(2, 0, "f", 4, 4, 4), "abcd", 0640},
      {0, 0, "g", nullptr, update(2, 0, "g", 16, 17, 2, "xyz"), zeros + "xyz", 0644},
  };
  for (const auto& c : cases) {
    if (c.existing != nullptr) make_file(c.local_root, c.path, c.existing, 0640);
    const size_t base = c.path.rfind('/') + 1;
    const std::string name = std::string(c.path).insert(base, ".$SyncDigest$");
    const std::string digest = make_file(c.local_root, name, "");
    receive(c.payload);
    const std::string path = tree_path(c.local_root, c.path);
    EXPECT_EQ(read_file(path), c.content) << path;
    EXPECT_EQ(mode_of(path), c.mode) << path;
    EXPECT_FALSE(exists(digest)) << path;
    expect_push_answer(c.root, c.path);
  }
  EXPECT_EQ(stats.n_chunk_writes_from_peer, std::size(cases));
  EXPECT_EQ(names_in(tree_path(0, "a/b")), std::set<std::string>({"c"}));
  EXPECT_TRUE(
      has_logged("SYNC updating chunk atomic=0 size=3 offs=0x10 '" + tree_path(0, "g") + "'"));
}

TEST_F(IncomingTest, OffsetsHave32Bits) {
  for (const uint32_t begin : {0x7FFFFFFEu, 0xBFFFFFFCu, 0xFFFFFFFBu}) {
    receive(update(2, 0, "f", begin, begin + 4, begin + 4, "tail"));
    expect_push_answer(0, "f");
    std::ifstream file(tree_path(0, "f"), std::ios::binary);
    file.seekg(begin);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "tail") << begin;
  }
}

TEST_F(IncomingTest, WhatCannotBeWrittenIsAnsweredWithTheFailure) {
  const std::string f = make_file(0, "f", "kept");
  strcpy(g_diag_params.fail_write_path, f.c_str());
  make_file(0, "real/f", "kept");
  const std::string outside = make_file(1, "outside", "kept");
  ASSERT_EQ(symlink("real", tree_path(0, "dirlink").c_str()), 0);
  ASSERT_EQ(symlink(outside.c_str(), tree_path(0, "link").c_str()), 0);
  ASSERT_EQ(mkfifo(tree_path(0, "fifo").c_str(), 0644), 0);
  const std::string loop = "Too many levels of symbolic links";
  for (const auto& [path, whole, error] : std::vector<std::tuple<std::string, bool, std::string>>{
           {"f", true, "Numerical argument out of domain"},
           {"dirlink/f", true, loop},
           {"dirlink/new/f", false, loop},
           {"link", false, loop},
           {"fifo", false, "No such device or address"},
           {"fifo/f", true, "Not a directory"},
           {"", true, "Invalid argument"},
           {"real/", false, "Is a directory"},
           {std::string(256, 'n'), false, "File name too long"}}) {
    receive(whole ? push(0, path, "data") : update(2, 0, path, 1, 2, 9, "x"));
    expect_push_answer(0, path, "Unable to update file (" + error + "): " + tree_path(0, path));
  }
  receive(update(2, 0, "big", 0xFFFFFFFE, 0xFFFFFFFF, 9, "xy"));
  expect_push_answer(0, "big", "Unable to update file (File too large): " + tree_path(0, "big"));
  EXPECT_EQ(stats.n_chunk_writes_from_peer, 0u);
  EXPECT_EQ(read_file(f), "kept");
  receive(update(2, 0, "f", 1, 2, 9, "x"));
  EXPECT_EQ(read_file(f), std::string("kxpt\0\0\0\0\0", 9)) << "only whole files fail on request";
  receive(push(0, "link", "replaced"));
  EXPECT_EQ(read_file(tree_path(0, "link")), "replaced") << "the link itself is replaced";
  EXPECT_EQ(read_file(outside), "kept");
  EXPECT_EQ(read_file(tree_path(0, "real/f")), "kept");
}

TEST_F(IncomingTest, PullsAndTheirAnswers) {
  make_file(1, "f", "0123456789", 0600);
  receive(update(0, 2, "f", 8, 10, 5));
  expect_answer(update(1, 1, "f", 8, 10, 10, "89", kRestricted));
  const std::string path = tree_path(2, "d/f");
  receive(update(1, 1, "d/f", 0, 4, 4, "data"));
  EXPECT_EQ(read_file(path), "data");
  receive(update(1, 1, "d/f", 0, 4, 4, std::string(4, '\0'), kNoData));
  EXPECT_EQ(stats.n_chunk_writes_from_peer, 1u);
  EXPECT_EQ(ctx->cpg_result.success, 1);
  EXPECT_TRUE(has_logged("SYNC update IGNORED due to error on sender side d/f"));
  strcpy(g_diag_params.fail_write_path, path.c_str());
  receive(update(1, 1, "d/f", 0, 4, 4, "lost"));
  EXPECT_EQ(logged(3)[0], "Unable to update file (Numerical argument out of domain): " + path);
  EXPECT_EQ(ctx->cpg_result.reason, logged(3)[0]);
  EXPECT_EQ(read_file(path), "data");
  EXPECT_EQ(g_cpg.sent.size(), 0u) << "an answer is not answered";
}

// Updates arrive before deletions: the new file stands, and the deletion of what made way for it is
// answered like that of any path that names no file; the next comparison finds nothing left to do.
TEST_F(IncomingTest, DeletionsAndChangesOfKind) {
  const std::string digest = make_file(0, "d/.$SyncDigest$f", "");
  make_file(0, "d/f", "x");
  make_file(0, "real/f", "kept");
  ASSERT_EQ(symlink("real", tree_path(0, "dirlink").c_str()), 0);
  ASSERT_EQ(symlink("real/f", tree_path(0, "link").c_str()), 0);
  for (const char* path : {"d/f", "d/f", "gone/f", "link"}) {
    expect_deletion(path, "");
    EXPECT_FALSE(exists(tree_path(0, path)));
  }
  expect_deletion("dirlink/f", "Too many levels of symbolic links");
  receive(update(4, 0, "", 0, 0, 0));  // 33 bytes: the root itself
  EXPECT_TRUE(exists(tree_path(0, "real/f")) && exists(digest));

  make_file(0, "was dir/f", "old");
  make_file(0, "was file", "old");
  receive(push(0, "was dir", "new"));
  expect_push_answer(0, "was dir");
  receive(push(0, "was file/d/f", "new"));
  expect_push_answer(0, "was file/d/f");
  expect_deletion("was dir/f", "Not a directory");
  expect_deletion("was file", "Is a directory");
  EXPECT_EQ(read_file(tree_path(0, "was dir")) + read_file(tree_path(0, "was file/d/f")), "newnew");
}

TEST_F(IncomingTest, KnownFilesAreAnnounced) {
  ASSERT_EQ(mount("tmpfs", "/etc", "tmpfs", 0, nullptr), 0);
  mkdir("/etc/em", 0755);
  ASSERT_EQ(mkfifo("/etc/announced", 0600), 0);
  write_file("/etc/em/use_replicated_data", "#!/bin/sh\necho $# $1 > /etc/announced\n", 0755);
  std::istringstream names(
      "maint_pass maint_shell ip_addr_config.json device_counts dhcpv4_data.json - "
      "dhcpv6_data.json - slaac_data.json - shadow shadow+ passwd passwd+");
  Texts expected;
  std::string name;
  for (int id = 0; names >> name; ++id) {
    if (name == "-") continue;
    receive(push(1, name, "data"));
    expected.push_back(name);
    expected.push_back("Initiated processing of updated file " + tree_path(2, name));
    ASSERT_EQ(logged(6), expected);
    EXPECT_EQ(read_file("/etc/announced"), "1 " + std::to_string(id) + "\n") << name;
  }
  for (const char* other : {"INVALID", "d/shadow"}) {
    receive(push(0, other, "data"));
    expected.push_back(other);
  }
  receive(push(2, "shadow", "this EM's own"));
  receive(update(2, 0, "shadow", 0, 1, 9, "x"));
  EXPECT_EQ(logged(6), expected) << "a chunk is not the whole file";
  write_file("/etc/em/use_replicated_data", "#!/missing\n", 0755);
  receive(push(0, "shadow", "data"));
  umount2("/etc", MNT_DETACH);
  if (kSpawnTellsFailure) {
    EXPECT_EQ(logged(3), Texts({"Failed to process changes to " + tree_path(0, "shadow")}));
  }
  expect_push_answer(0, "shadow");
}

}  // namespace
