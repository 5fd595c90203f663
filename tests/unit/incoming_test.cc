#include "redundancy_health/transfer/incoming.h"

#include <string.h>
#include <sys/mount.h>

#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/statistics.h"
#include "tests/unit/daemon_support.h"
#include "tests/unit/update_bytes.h"

namespace {

class IncomingTest : public DaemonTest {
 protected:
  IncomingTest() {
    ctx->cur_exchange_id = 0x11;
    ctx->peer_exchange_id = 0x33;
    ctx->peer_sequence_id = 0x44;
    ctx->cur_state = ST_PEERLOCK;
  }

  // Applies an update with fresh counters and nothing sent.
  void receive(const std::string& payload) {
    g_cpg.sent.clear();
    reset_cpg_result(ctx);
    stats.n_chunk_writes_from_peer = 0;
    on_update_chunk(ctx, reinterpret_cast<const uint8_t*>(payload.data()),
                    static_cast<uint32_t>(payload.size()));
  }

  // One answer, `payload`, went out for the request received last; with `reason` it is a failure.
  void expect_answer(const std::string& payload, const std::string& reason = "") {
    ASSERT_EQ(g_cpg.sent.size(), 1u);
    const CpgHeader& header = g_cpg.sent[0].header;
    EXPECT_EQ(g_cpg.sent[0].payload, payload);
    EXPECT_EQ(header.command, 5u);
    EXPECT_EQ(header.exchange_id, 0x33u);
    EXPECT_EQ(header.sequence_id, 0x44u);
    EXPECT_EQ(header.result.reason, reason.substr(0, 115));
    EXPECT_EQ(header.result.success, reason.empty());
    EXPECT_EQ(memcmp(&header.result, &ctx->cpg_result, sizeof(RpcResult)), 0);
  }

  static std::string push(uint32_t root, const std::string& path, const std::string& data) {
    const auto size = static_cast<uint32_t>(data.size());
    return update(2, root, path, 0, size, size, data);
  }

  static std::string push_answer(uint32_t root, const std::string& path) {
    return update(3, root, path, 0, 0, 0);
  }
};

TEST_F(IncomingTest, MalformedMessagesEndTheExchangeAndTouchNothing) {
  const std::string kept = make_file(0, "kept", "kept");
  write_file("/mnt/part.persistent/outside", "kept");
  const std::string whole = update(4, 0, "kept", 0, 0, 0);
  const char malformed[] = "Received malformed UPDATE_REQ message";
  const char too_large[] = "Chunk size in request header too large";
  const struct {
    std::string payload;
    const char* reason;
  } cases[] = {
      {"", malformed},
      {std::string(31, '\0'), malformed},
      {std::string(32, '\0'), malformed},
      {whole.substr(0, whole.size() - 1), malformed},
      {update(4, 4, "kept", 0, 0, 0), malformed},
      {update(0, 0xFFFFFFFF, "kept", 1, 0, 0), malformed},
      {update(4, 0, "/mnt/part.persistent/outside", 0, 0, 0), malformed},
      {update(4, 0, "../outside", 0, 0, 0), malformed},
      {update(4, 0, "d/../../outside", 0, 0, 0), malformed},
      {push(0, "../outside", "x"), malformed},
      {update(0, 0, "../outside", 0, 4, 4), malformed},
      {update(0, 0, "kept", 0, 65537, 0), too_large},
      {update(4, 0, "kept", 1, 0, 0), too_large},
      {update(2, 0, "kept", 0xFFFFFFFF, 0x10000, 0), too_large},
      {update(2, 0, "kept", 0xFFFFFFFF, 0xFFFF, 0), too_large},
  };
  for (const auto& c : cases) {
    ctx->cur_state = ST_PEERLOCK;
    receive(c.payload);
    EXPECT_STREQ(ctx->cpg_result.reason, c.reason);
    EXPECT_TRUE(has_logged(std::string("Sync Error: ") + c.reason));
    EXPECT_EQ(sent_messages(), std::vector<std::string>({"MSG_LOCK_REL 17.0"})) << c.reason;
    EXPECT_EQ(ctx->cur_state, ST_DONE);
  }
  EXPECT_EQ(read_file(kept), "kept");
  EXPECT_EQ(read_file("/mnt/part.persistent/outside"), "kept");
  unlink("/mnt/part.persistent/outside");
}

TEST_F(IncomingTest, OtherTypesDoNothing) {
  make_file(0, "kept", "kept");
  for (const uint32_t type : {3u, 5u, 6u, 7u, 0xFFFFFFFFu}) {
    receive(update(type, 0, "kept", 0, 1, 1, "x"));
    EXPECT_EQ(g_cpg.sent.size(), 0u) << type;
    EXPECT_EQ(ctx->cpg_result.success, 1);
  }
  EXPECT_EQ(read_file(tree_path(0, "kept")), "kept");
  EXPECT_EQ(logged(-1), std::vector<std::string>());
}

TEST_F(IncomingTest, PushedFilesAndChunks) {
  const std::string zeros(16, '\0');
  const struct {
    uint32_t root;  // the sender's
    uint32_t local_root;
    const char* path;
    const char* existing;  // null: the file is new; else its content, mode 0640
    std::string payload;
    std::string content;
    int mode;
  } cases[] = {
      {0, 0, "a/b/c", nullptr, push(0, "a/b/c", "data"), "data", 0644},
      {1, 2, "f", "old content", push(1, "f", "data"), "data", 0644},
      {2, 1, "f", "old", update(2, 2, "f", 0, 1, 1, "x", kRestricted), "x", 0600},
      {3, 3, "f", "old", push(3, "f", ""), "", 0644},
      // From here on chunks that are not the whole file.
      {0, 0, "n/f", nullptr, update(2, 0, "n/f", 0, 3, 4, "abc", kRestricted),
       "abc" + zeros.substr(0, 1), 0600},
      {0, 0, "f", "abcdefghij", update(2, 0, "f", 3, 5, 6, "XY"), "abcXYf", 0640},
      {0, 0, "f", "abcdefghij", update(2, 0, "f", 4, 4, 4), "abcd", 0640},
      {0, 0, "g", nullptr, update(2, 0, "g", 16, 17, 2, "xyz"), zeros + "xyz", 0644},
  };
  for (const auto& c : cases) {
    if (c.existing != nullptr) make_file(c.local_root, c.path, c.existing, 0640);
    const std::string name = std::string(c.path).insert(strlen(c.path) - 1, ".$SyncDigest$");
    const std::string digest = make_file(c.local_root, name, "");
    receive(c.payload);
    const std::string path = tree_path(c.local_root, c.path);
    EXPECT_EQ(read_file(path), c.content) << path;
    EXPECT_EQ(mode_of(path), c.mode) << path;
    EXPECT_EQ(stats.n_chunk_writes_from_peer, 1u) << path;
    EXPECT_FALSE(exists(digest)) << path;
    expect_answer(push_answer(c.root, c.path));
  }
  EXPECT_EQ(names_in(tree_path(0, "a/b")), std::set<std::string>({"c"}));
  EXPECT_EQ(logged(-1).at(0),
            "SYNC updating chunk atomic=1 size=4 offs=0x0 '" + tree_path(0, "a/b/c") + "'");
  EXPECT_TRUE(
      has_logged("SYNC updating chunk atomic=0 size=3 offs=0x10 '" + tree_path(0, "g") + "'"));
}

TEST_F(IncomingTest, WhatCannotBeWrittenIsAnsweredWithTheFailure) {
  const std::string f = make_file(0, "f", "kept");
  strcpy(g_diag_params.fail_write_path, f.c_str());
  make_file(0, "real/f", "kept");
  write_file("/mnt/part.persistent/outside", "kept");
  ASSERT_EQ(symlink("real", tree_path(0, "dirlink").c_str()), 0);
  ASSERT_EQ(symlink("/mnt/part.persistent/outside", tree_path(0, "link").c_str()), 0);
  ASSERT_EQ(mkfifo(tree_path(0, "fifo").c_str(), 0644), 0);
  const std::string long_name(256, 'n');
  const struct {
    const char* path;
    bool whole;
    const char* error;
  } cases[] = {{"f", true, "Numerical argument out of domain"},
               {"dirlink/f", true, "Too many levels of symbolic links"},
               {"dirlink/f", false, "Too many levels of symbolic links"},
               {"dirlink/new/f", true, "Too many levels of symbolic links"},
               {"link", false, "Too many levels of symbolic links"},
               {"fifo", false, "No such device or address"},
               {"fifo/f", true, "Not a directory"},
               {"", true, "Invalid argument"},
               {"real/", false, "Is a directory"},
               {long_name.c_str(), false, "File name too long"}};
  for (const auto& c : cases) {
    receive(c.whole ? push(0, c.path, "data") : update(2, 0, c.path, 1, 2, 9, "x"));
    expect_answer(push_answer(0, c.path),
                  std::string("Unable to update file (") + c.error + "): " + tree_path(0, c.path));
    EXPECT_EQ(ctx->cpg_result.local_ok, 1) << "code 20";
    EXPECT_EQ(stats.n_chunk_writes_from_peer, 0u) << c.path;
  }
  receive(update(2, 0, "f", 1, 2, 9, "x"));
  EXPECT_EQ(read_file(f), std::string("kxpt\0\0\0\0\0", 9)) << "only whole files fail on request";
  receive(push(0, "link", "replaced"));
  EXPECT_EQ(read_file(tree_path(0, "link")), "replaced") << "the link itself is replaced";
  EXPECT_EQ(read_file("/mnt/part.persistent/outside"), "kept");
  EXPECT_EQ(read_file(tree_path(0, "real/f")), "kept");
  unlink("/mnt/part.persistent/outside");
}

TEST_F(IncomingTest, AStaleDigestFileThatStaysIsOnlyLogged) {
  ASSERT_EQ(mkdir(tree_path(0, ".$SyncDigest$f").c_str(), 0755), 0);
  receive(push(0, "f", "data"));
  expect_answer(push_answer(0, "f"));
  EXPECT_EQ(logged(3).at(0), "Could not remove stale digest file '" +
                                 tree_path(0, ".$SyncDigest$f") + "': Is a directory");
  EXPECT_EQ(read_file(tree_path(0, "f")), "data");
}

TEST_F(IncomingTest, DataThatTheSenderCouldNotReadIsIgnored) {
  const std::string path = make_file(0, "f", "kept");
  receive(update(2, 0, "f", 0, 4, 4, "data", kNoData));
  expect_answer(push_answer(0, "f"));
  receive(update(1, 0, "f", 0, 4, 4, "data", kNoData));
  EXPECT_EQ(g_cpg.sent.size(), 0u);
  EXPECT_EQ(ctx->cpg_result.success, 1);
  EXPECT_EQ(read_file(path), "kept");
  EXPECT_EQ(stats.n_chunk_writes_from_peer, 0u);
  EXPECT_TRUE(has_logged("SYNC update IGNORED due to error on sender side f"));
}

TEST_F(IncomingTest, APulledChunkIsNotAnswered) {
  receive(update(1, 1, "d/f", 0, 4, 4, "data"));
  EXPECT_EQ(read_file(tree_path(2, "d/f")), "data");
  EXPECT_EQ(stats.n_chunk_writes_from_peer, 1u);
  EXPECT_EQ(g_cpg.sent.size(), 0u);

  strcpy(g_diag_params.fail_write_path, tree_path(2, "d/f").c_str());
  receive(update(1, 1, "d/f", 0, 4, 4, "data"));
  const std::string reason =
      "Unable to update file (Numerical argument out of domain): " + tree_path(2, "d/f");
  EXPECT_EQ(ctx->cpg_result.reason, reason);
  EXPECT_EQ(ctx->cpg_result.canceled, 1);
  EXPECT_EQ(logged(3).at(0), reason);
  EXPECT_EQ(g_cpg.sent.size(), 0u);
}

TEST_F(IncomingTest, APullIsAnsweredInThisEmsNumbering) {
  make_file(1, "f", "0123456789", 0600);
  receive(update(0, 2, "f", 8, 10, 5));
  expect_answer(update(1, 1, "f", 8, 10, 10, "89", kRestricted));
  EXPECT_EQ(logged(-1).at(0),
            "SYNC pulling file '" + tree_path(1, "f") + "' -> '" + tree_path(2, "f") + "'");
}

TEST_F(IncomingTest, Deletions) {
  const std::string digest = make_file(2, "d/.$SyncDigest$f", "");
  make_file(2, "d/f", "x");
  make_file(2, "real/f", "kept");
  ASSERT_EQ(symlink("real", tree_path(2, "dirlink").c_str()), 0);
  ASSERT_EQ(symlink("real/f", tree_path(2, "link").c_str()), 0);
  const std::string busy = make_file(2, "busy", "kept");
  ASSERT_EQ(mount(busy.c_str(), busy.c_str(), nullptr, MS_BIND, nullptr), 0);
  const struct {
    const char* path;
    const char* error;  // empty: success
  } cases[] = {{"d/f", ""},
               {"d/f", ""},
               {"gone/f", ""},
               {"link", ""},
               {"busy", "Device or resource busy"},
               {"dirlink/f", "Too many levels of symbolic links"}};
  for (const auto& c : cases) {
    receive(update(4, 1, c.path, 0, 3, 7));
    const std::string path = tree_path(2, c.path);
    const bool done = *c.error == '\0';
    expect_answer(update(5, 1, c.path, 0, 0, 0),
                  done ? "" : std::string("Unable to delete file (") + c.error + "): " + path);
    EXPECT_EQ(ctx->cpg_result.local_ok, 1) << "code 20";
    EXPECT_TRUE(has_logged("SYNC Deleting file " + path));
  }
  EXPECT_EQ(umount(busy.c_str()), 0);
  EXPECT_TRUE(exists(digest));
  EXPECT_FALSE(exists(tree_path(2, "link")));
  EXPECT_TRUE(exists(tree_path(2, "real/f")));
  receive(update(4, 1, "", 0, 0, 0));  // 33 bytes: the root itself
  EXPECT_EQ(g_cpg.sent.size(), 1u);
  EXPECT_TRUE(exists(tree_path(2, "real/f")));
}

// Updates arrive before deletions: the new file stands, and the deletion of what made way for it is
// answered like that of any path that names no file; the next comparison finds nothing left to do.
TEST_F(IncomingTest, FilesAndDirectoriesTakeEachOthersPlace) {
  make_file(0, "was dir/f", "old");
  receive(push(0, "was dir", "new"));
  expect_answer(push_answer(0, "was dir"));
  receive(update(4, 0, "was dir/f", 0, 0, 0));
  expect_answer(update(5, 0, "was dir/f", 0, 0, 0),
                "Unable to delete file (Not a directory): " + tree_path(0, "was dir/f"));

  make_file(0, "was file", "old");
  receive(push(0, "was file/d/f", "new"));
  expect_answer(push_answer(0, "was file/d/f"));
  receive(update(4, 0, "was file", 0, 0, 0));
  expect_answer(update(5, 0, "was file", 0, 0, 0),
                "Unable to delete file (Is a directory): " + tree_path(0, "was file"));
  EXPECT_EQ(read_file(tree_path(0, "was dir")) + read_file(tree_path(0, "was file/d/f")), "newnew");
}

TEST_F(IncomingTest, ParentDirectories) {
  EXPECT_EQ(ensure_parent_directory("relative/x"), ENOENT);
  EXPECT_EQ(ensure_parent_directory(""), ENOENT);
  EXPECT_EQ(ensure_parent_directory("/x"), 0);
  EXPECT_EQ(ensure_parent_directory("//x"), 0);
  EXPECT_EQ(ensure_parent_directory("/run/p/q//r///x"), 0);
  EXPECT_EQ(mode_of("/run/p/q/r"), 0755);
  EXPECT_FALSE(exists("/run/p/q/r/x"));
  write_file("/run/p/file", "");
  EXPECT_EQ(ensure_parent_directory("/run/p/file/d/x"), ENOTDIR);
  EXPECT_EQ(ensure_parent_directory("/run/p/file/x"), 0) << "something is there";
  EXPECT_ABORT("EXCEPTION: path is NULL", ensure_parent_directory(nullptr));
}

TEST_F(IncomingTest, KnownFilesAreAnnounced) {
  ASSERT_EQ(mount("tmpfs", "/etc", "tmpfs", 0, nullptr), 0);
  mkdir("/etc/em", 0755);
  ASSERT_EQ(mkfifo("/run/announced", 0600), 0);
  write_file("/etc/em/use_replicated_data", "#!/bin/sh\necho $# $1 > /run/announced\n", 0755);
  const struct {
    uint32_t root;  // the sender's
    const char* path;
    int id;  // -1: not announced
  } cases[] = {{0, "maint_pass", 0},      {0, "maint_shell", 1},      {3, "ip_addr_config.json", 2},
               {1, "device_counts", 3},   {0, "dhcpv4_data.json", 4}, {1, "dhcpv6_data.json", 6},
               {0, "slaac_data.json", 8}, {0, "shadow", 10},          {0, "shadow+", 11},
               {0, "passwd", 12},         {0, "passwd+", 13},         {0, "INVALID", -1},
               {0, "d/shadow", -1},       {2, "shadow", -1}};
  std::vector<std::string> expected;
  for (const auto& c : cases) {
    receive(push(c.root, c.path, "data"));
    const std::string path = tree_path(c.root == 1 ? 2 : c.root, c.path);
    if (c.root != 2) expected.push_back(c.path);
    if (c.id >= 0) expected.push_back("Initiated processing of updated file " + path);
    ASSERT_EQ(logged(6), expected);
    if (c.id < 0) continue;
    EXPECT_EQ(read_file("/run/announced"), "1 " + std::to_string(c.id) + "\n") << c.path;
  }
  receive(update(2, 0, "shadow", 0, 1, 9, "x"));
  EXPECT_EQ(logged(6), expected) << "a chunk is not the whole file";
  write_file("/etc/em/use_replicated_data", "#!/missing\n", 0755);
  receive(push(0, "shadow", "data"));
  EXPECT_EQ(logged(3),
            std::vector<std::string>({"Failed to process changes to " + tree_path(0, "shadow")}));
  expect_answer(push_answer(0, "shadow"));
  EXPECT_EQ(stats.n_chunk_writes_from_peer, 1u);
  umount2("/etc", MNT_DETACH);
  unlink("/run/announced");
}

}  // namespace
