#include "redundancy_health/transfer/incoming.h"

#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/transfer/outgoing.h"
#include "tests/unit/daemon_support.h"

namespace {

class TransferTest : public DaemonTest {
 protected:
  TransferTest() {
    ctx->cur_exchange_id = 0x11;
    ctx->peer_exchange_id = 0x33;
    ctx->peer_sequence_id = 0x44;
  }

  // Expects that one answer, `payload`, was sent for the last request; with `reason` it is a
  // failure.
  void expect_answer(const std::string& payload, const std::string& reason = "") {
    ASSERT_EQ(g_cpg.sent.size(), 1u);
    if (reason.empty()) {
      EXPECT_EQ(bytes_of(g_cpg.sent[0]), message_bytes(MSG_UPDATE_ACK, 0x33, 0x44, payload, 1));
    }
    EXPECT_EQ(g_cpg.sent[0].payload, payload);
    const RpcResult& result = g_cpg.sent[0].header.result;
    EXPECT_EQ(result.reason, reason.substr(0, 115));
    EXPECT_EQ(result.success, reason.empty());
    EXPECT_EQ(result.local_ok, 1) << "code 20 if any";
    EXPECT_EQ(memcmp(&result, &ctx->cpg_result, sizeof(RpcResult)), 0);
  }

  static FileEntry* new_entry(uint32_t type, uint32_t root, const char* path, uint32_t begin,
                              uint32_t end) {
    FileEntry* entry = new_file_entry(root, root_paths[root], path);
    entry->update_type = type;
    entry->begin_offs = begin;
    entry->end_offs = end;
    entry->file_size = 0x12345678;
    return entry;
  }
};

TEST_F(TransferTest, MalformedMessagesEndTheExchangeAndTouchNothing) {
  const std::string kept = make_file(0, "kept", "kept"), outside = "/mnt/part.persistent/outside";
  write_file(outside, "kept");
  const std::string whole = update(PUSH_DEL_REQ, 0, "kept", 0, 0, 0);
  const std::string malformed = "Received malformed UPDATE_REQ message";
  const std::string too_large = "Chunk size in request header too large";
  std::vector<std::pair<std::string, std::string>> cases = {
      {"", malformed},
      {std::string(32, '\0'), malformed},
      {whole.substr(0, whole.size() - 1), malformed},
      {update(PUSH_DEL_REQ, 4, "kept", 0, 0, 0), malformed},
      {update(PULL_REQ, 0, "kept", 0, 65537, 0), too_large},
      {update(PUSH_DEL_REQ, 0, "kept", 1, 0, 0), too_large},
      {update(PUSH_REQ, 0, "kept", 0xFFFFFFFF, 0xFFFF, 0), too_large}};
  // Outside, or where no later scan could list it.
  for (const std::string& path :
       {outside, std::string("../outside"), std::string("d/../../outside"),
        std::string(".$SyncDigest$kept"), "d/" + std::string(243, 'n'),
        std::string("1/2/3/4/5/6/7/8/9/a/b/c/d/e/f/g/h/f"), std::string(" \n"), std::string("\t/f"),
        std::string(" ../f"), std::string("TempUpdate_1"), std::string("TempUpdate_d/f")}) {
    cases.emplace_back(push(0, path, "x"), malformed);
    cases.emplace_back(update(PULL_REQ, 0, path, 0, 4, 4), malformed);
  }
  for (const auto& [payload, reason] : cases) {
    receive(payload);
    EXPECT_EQ(ctx->cpg_result.reason, reason);
    EXPECT_EQ(sent_messages(), Lines({"MSG_LOCK_REL 17.0"})) << testing::PrintToString(payload);
  }
  for (const uint32_t type : {3u, 5u, 6u, 0xFFFFFFFFu}) {
    receive(update(type, 0, "kept", 0, 1, 1, "x"));
    EXPECT_EQ(g_cpg.sent.size(), 0u) << "another type does nothing: " << type;
  }
  EXPECT_EQ(read_file(kept) + read_file(outside), "keptkept");
  unlink(outside.c_str());
}

TEST_F(TransferTest, PushedFilesAndChunks) {
  enum Hold { kNobody, kOfAnotherUser, kLinked };
  const std::string fourth("\0\0\0d", 4);
  const std::string edge = "1/2/3/4/5/6/7/8/9/a/b/c/d/e/f/g/" + std::string(242, 'n');
  const struct {
    uint32_t root = 0;  // in the sender's numbering
    std::string path = "f";
    const char* existing = nullptr;  // the content of the existing file
    mode_t mode_before = 0640;
    Hold hold = kNobody;  // on that file
    std::string payload, content;
    int mode = 0644;
    bool new_inode = false;  // of a chunk
  } cases[] = {
      // clang-format off
      {.root = 1, .existing = "old content", .payload = push(1, "f", "data"), .content = "data"},
      {.root = 2, .existing = "old", .payload = update(PUSH_REQ, 2, "f", 0, 1, 1, "x", kRestricted),
       .content = "x", .mode = 0600},
      {.path = edge, .payload = push(0, edge, "x"), .content = "x"},
      // From here on, chunks that are not the whole file.
      {.path = "n/f", .payload = update(PUSH_REQ, 0, "n/f", 0, 3, 4, "abc", kRestricted),
       .content = std::string("abc\0", 4), .mode = 0600},
      {.existing = "abcdefghij", .mode_before = 0755,
       .payload = update(PUSH_REQ, 0, "f", 3, 5, 6, "XY"), .content = "abcXYf", .mode = 0755},
      {.path = "g", .payload = update(PUSH_REQ, 0, "g", 2, 3, 2, "xyz"),
       .content = std::string("\0\0xyz", 5)},
      // The copy gets the mode class; if it already has that class, it keeps its mode.
      {.path = "s", .existing = "abc",
       .payload = update(PUSH_REQ, 0, "s", 3, 4, 4, "d", kRestricted), .content = "abcd", .mode = 0640},
      // Otherwise a new file is made, for which all chunks are sent.
      {.path = "s", .existing = "abc", .mode_before = 0600,
       .payload = update(PUSH_REQ, 0, "s", 3, 4, 4, "d"), .content = fourth, .new_inode = true},
      {.existing = "abc", .mode_before = 0664,
       .payload = update(PUSH_REQ, 0, "f", 3, 4, 4, "d", kRestricted),
       .content = fourth, .mode = 0600, .new_inode = true},
      // Also if others hold the old file; then its content is copied.
      {.root = 1, .path = "u", .existing = "abc", .mode_before = 0666, .hold = kOfAnotherUser,
       .payload = update(PUSH_REQ, 1, "u", 3, 4, 4, "d"), .content = "abcd", .new_inode = true},
      {.root = 1, .path = "l", .existing = "abc", .mode_before = 0755, .hold = kLinked,
       .payload = update(PUSH_REQ, 1, "l", 3, 4, 4, "d"), .content = "abcd", .new_inode = true},
      // clang-format on
  };
  for (const auto& c : cases) {
    const uint32_t root = peer_root_index(c.root);
    if (c.existing != nullptr) make_file(root, c.path, c.existing, c.mode_before);
    const std::string path = tree_path(root, c.path);
    const bool held_fast = (c.hold != kOfAnotherUser || chown(path.c_str(), 1000, 1000) == 0) &&
                           (c.hold != kLinked || link(path.c_str(), (path + "2").c_str()) == 0);
    ASSERT_TRUE(held_fast);
    const int held = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const std::string name = std::string(c.path).insert(c.path.rfind('/') + 1, ".$SyncDigest$");
    const std::string digest = make_file(root, name, "");
    umask(0027);  // must not affect the mode of a copy
    receive(c.payload);
    umask(0022);
    if (c.new_inode) {
      EXPECT_EQ(read_file("/proc/self/fd/" + std::to_string(held)), c.existing) << path;
    }
    close(held);
    EXPECT_EQ(read_file(path), c.content) << path;
    EXPECT_EQ(mode_of(path), c.mode) << path;
    EXPECT_FALSE(exists(digest)) << path;
    expect_answer(update(PUSH_ACK, c.root, c.path, 0, 0, 0));
  }
  EXPECT_EQ(stats.n_chunk_writes_from_peer, std::size(cases));
}

TEST_F(TransferTest, WhatCannotBeChangedIsAnsweredWithTheFailure) {
  const std::string f = make_file(0, "f", "kept"), outside = make_file(1, "outside", "kept");
  strcpy(g_diag_params.fail_write_path, f.c_str());
  make_file(0, "real/f", "kept");
  make_file(0, "d/f", "deleted");
  const auto deletion = [](const char* path) { return update(PUSH_DEL_REQ, 0, path, 0, 3, 7); };
  const std::string loop = "Too many levels of symbolic links";
  const std::array<std::string, 3> rows[] = {
      {"f", push(0, "f", "data"), "Numerical argument out of domain"},
      {"dirlink/f", push(0, "dirlink/f", "data"), loop},
      {"dirlink/new/f", update(PUSH_REQ, 0, "dirlink/new/f", 1, 2, 9, "x"), loop},
      {"", push(0, "", "data"), "Invalid argument"},
      {"real/.", push(0, "real/.", "data"), "Device or resource busy"},
      {"big", update(PUSH_REQ, 0, "big", 0xFFFFFFFE, 0xFFFFFFFF, 9, "xy"), "File too large"},
      {"dirlink/f", deletion("dirlink/f"), loop},
      // A file that is gone, and one of a directory that an earlier update has replaced.
      {"d/f", deletion("d/f"), ""},
      {"d/f", deletion("d/f"), ""},
      {"gone/f", deletion("gone/f"), ""},
      {"f/below", deletion("f/below"), ""},
      {"dirlink", deletion("dirlink"), ""},
  };
  for (const bool active : {false, true}) {
    set_active(active);
    fs::create_symlink("real", tree_path(0, "dirlink"));
    for (const auto& [path, payload, error] : rows) {
      receive(payload);
      const bool deletes = payload[0] == PUSH_DEL_REQ;
      expect_answer(update(deletes ? PUSH_DEL_ACK : PUSH_ACK, 0, path, 0, 0, 0),
                    error.empty() ? ""
                                  : std::string("Unable to ") + (deletes ? "delete" : "update") +
                                        " file (" + error + "): " + tree_path(0, path));
      EXPECT_EQ(ctx->cur_state, ST_PEERLOCK) << "it waits for the release";
      EXPECT_EQ(ctx->resync_countdown, active ? 5 : -1) << "a standby does not try again";
    }
  }
  EXPECT_FALSE(exists(tree_path(0, "d/f")));
  EXPECT_EQ(stats.n_chunk_writes_from_peer, 0u);
  // Anything but a regular file is removed for a whole file and for the first of many chunks.
  for (const std::string& payload :
       {push(0, "link", "replaced"), update(PUSH_REQ, 0, "link", 0, 8, 9, "replaced")}) {
    for (const bool fifo : {false, true}) {
      unlink(tree_path(0, "link").c_str());
      fifo ? (void)mkfifo(tree_path(0, "link").c_str(), 0644)
           : fs::create_symlink(outside, tree_path(0, "link"));
      receive(payload);
      ASSERT_TRUE(fs::is_regular_file(tree_path(0, "link"))) << fifo;
      EXPECT_TRUE(read_file(tree_path(0, "link")).starts_with("replaced"));
    }
  }
  EXPECT_EQ(read_file(f) + read_file(outside) + read_file(tree_path(0, "real/f")), "keptkeptkept");
}

TEST_F(TransferTest, PullsAndTheirAnswers) {
  make_file(1, "f", "0123456789", 0600);
  receive(update(PULL_REQ, 2, "f", 8, 10, 5));
  expect_answer(update(PULL_ACK, 1, "f", 8, 10, 10, "89", kRestricted));
  for (const uint32_t begin : {0x7FFFFFFEu, 0xFFFFFFFBu}) {  // offsets have 32 bits
    receive(update(PUSH_REQ, 0, "f", begin, begin + 4, begin + 4, "tail"));
    receive(update(PULL_REQ, 0, "f", begin, begin + 4, 5));
    expect_answer(update(PULL_ACK, 0, "f", begin, begin + 4, begin + 4, "tail"));
  }
  const std::string path = tree_path(2, "d/f");
  receive(update(PULL_ACK, 1, "d/f", 0, 4, 4, "data"));
  receive(update(PULL_ACK, 1, "d/f", 0, 4, 4, std::string(4, '\0'), kNoData));
  EXPECT_EQ(ctx->cpg_result.success, 1);
  strcpy(g_diag_params.fail_write_path, path.c_str());
  receive(update(PULL_ACK, 1, "d/f", 0, 4, 4, "lost"));
  EXPECT_EQ(ctx->cpg_result.reason,
            "Unable to update file (Numerical argument out of domain): " + path);
  EXPECT_EQ(read_file(path), "data");
  EXPECT_EQ(g_cpg.sent.size(), 0u) << "an answer is not answered";
}

TEST_F(TransferTest, KnownFilesAreAnnounced) {
  const Mount etc("/etc"), em("/etc/em");
  ASSERT_EQ(mkfifo("/etc/announced", 0600), 0);
  // With a reader on the FIFO, no program hangs when an expectation fails.
  const int announced_fd = open("/etc/announced", O_RDWR | O_CLOEXEC);
  write_file("/etc/em/use_replicated_data", "#!/bin/sh\necho $# $1 > /etc/announced\n", 0755);
  Lines expected;
  int id = 0;
  for (const std::string name :
       {"maint_pass", "maint_shell", "ip_addr_config.json", "device_counts", "dhcpv4_data.json", "",
        "dhcpv6_data.json", "", "slaac_data.json", "", "shadow", "shadow+", "passwd", "passwd+"}) {
    const std::string announced = "1 " + std::to_string(id++) + "\n";
    if (name.empty()) continue;
    receive(push(1, name, "data"));
    expected.insert(expected.end(),
                    {name, "Initiated processing of updated file " + tree_path(2, name)});
    std::string seen(announced.size(), '\0');
    EXPECT_EQ(read(announced_fd, seen.data(), seen.size()), static_cast<ssize_t>(seen.size()));
    EXPECT_EQ(seen, announced) << name;
  }
  receive(push(1, "INVALID", "data"));
  receive(push(1, "d/shadow", "data"));
  expected.insert(expected.end(), {"INVALID", "d/shadow"});
  receive(push(2, "shadow", "this EM's own"));
  receive(update(PUSH_REQ, 0, "shadow", 0, 1, 9, "x"));
  EXPECT_EQ(logged(6), expected) << "a chunk is not the whole file";
  close(announced_fd);
}

TEST_F(TransferTest, WhatCannotBeReadIsSentWithoutData) {
  make_file(2, "f", "0123456789", 0600);
  make_file(2, "d/f", "0123456789");
  fs::create_symlink("d/f", tree_path(2, "link"));
  fs::create_symlink("d", tree_path(2, "dirlink"));
  strcpy(g_diag_params.fail_read_path, make_file(2, "injected", "0123456789").c_str());
  ASSERT_EQ(truncate(make_file(2, "huge", "").c_str(), off_t{5} << 30), 0);
  for (const auto& [path, error] : {std::pair("gone", "No such file or directory"),
                                    {"huge", "File too large"},
                                    {"injected", "Numerical argument out of domain"},
                                    {"f", "No data available"},
                                    {"d", "Is a directory"},
                                    {"link", "Too many levels of symbolic links"},
                                    {"dirlink/f", "Too many levels of symbolic links"}}) {
    for (const uint32_t type : {uint32_t{PULL_ACK}, uint32_t{PUSH_REQ}}) {
      FileEntry* entry = new_entry(type, 2, path, 5, 11);
      entry->restricted = 1;  // as listed, because the file has no newer value
      send_update_message(ctx, entry, entry->path, nullptr);
      free_file_entry(entry);
      const auto& [header, payload] = g_cpg.sent.back();
      EXPECT_EQ(payload, update(type, 2, path, 5, 11, 0x12345678, std::string(6, '\0'),
                                kNoData | kRestricted));
      EXPECT_EQ(header.result.reason,
                (std::string("Could not read file (") + error + "): " + tree_path(2, path))
                    .substr(0, 115));
      EXPECT_EQ(header.result.local_ok, 1) << "code 18";
      EXPECT_EQ(memcmp(&ctx->cpg_result, &header.result, sizeof(RpcResult)), 0);
    }
  }
}

}  // namespace
