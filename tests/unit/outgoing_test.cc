#include "redundancy_health/transfer/outgoing.h"

#include <string.h>

#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "tests/unit/daemon_support.h"
#include "tests/unit/update_bytes.h"

namespace {

using Texts = std::vector<std::string>;

class OutgoingTest : public DaemonTest {
 protected:
  OutgoingTest() {
    ctx->cur_exchange_id = 0x11;
    ctx->peer_exchange_id = 0x33;
    ctx->peer_sequence_id = 0x44;
    ctx->cur_state = ST_UPDATE;
  }

  static FileEntry* new_entry(uint32_t type, uint32_t root, const char* path, uint32_t begin,
                              uint32_t end) {
    FileEntry* entry = new_file_entry(root, root_paths[root], path);
    entry->update_type = type;
    entry->begin_offs = begin;
    entry->end_offs = end;
    entry->file_size = 0x12345678;
    entry->restricted = true;
    return entry;
  }

  void send(uint32_t type, uint32_t root, const char* path, uint32_t begin, uint32_t end) {
    FileEntry* entry = new_entry(type, root, path, begin, end);
    send_update_message(ctx, entry, entry->path, nullptr);
    free_file_entry(entry);
  }
};

TEST_F(OutgoingTest, MessagesAreTheirBytes) {
  make_file(1, "d/f", "0123456789");
  const struct {
    const char* name;
    const char* header;  // its 32 bytes
    const char* data;
  } cases[] = {
      {"PULL_REQ", "0000000001010000010000000100000000000000785634120200000006000000", ""},
      {"PULL_ACK", "01000000010100000100000000000000000000000a0000000200000006000000", "2345"},
      {"PUSH_REQ", "0200000001010000010000000000000000000000785634120200000006000000", "2345"},
      {"PUSH_ACK", "0300000001010000010000000100000000000000785634120200000006000000", ""},
      {"PUSH_DEL_REQ", "0400000001010000010000000100000000000000785634120200000006000000", ""},
      {"PUSH_DEL_ACK", "0500000001010000010000000100000000000000785634120200000006000000", ""},
  };
  ctx->cur_sequence_id = 0x22;
  for (uint32_t type = 0; type < 6; ++type) {
    const auto& c = cases[type];
    const bool answer = type % 2 == 1;
    send(type, 1, "d/f", 2, 6);
    ASSERT_EQ(g_cpg.sent.size(), type + 1);
    const auto& [header, payload] = g_cpg.sent.back();
    std::string bytes;
    for (int i = 0; i < 64; i += 2)
      bytes += static_cast<char>(std::stoi(std::string(c.header + i, 2), nullptr, 16));
    EXPECT_EQ(payload, bytes + "d/f" + '\0' + c.data) << c.name;
    EXPECT_EQ(header.flags, answer ? 1u : 0u) << c.name;
    EXPECT_EQ(sent_messages().back(), answer ? "MSG_UPDATE_ACK 51.68" : "MSG_UPDATE_REQ 17.34");
    EXPECT_EQ(header.result.success, 1);
    EXPECT_TRUE(has_logged(std::string("Send ") + c.name + " d/f"));
  }
}

TEST_F(OutgoingTest, WhatCannotBeReadIsSentWithoutData) {
  make_file(2, "f", "0123456789", 0600);
  make_file(2, "d/f", "0123456789");
  ASSERT_EQ(symlink("d/f", tree_path(2, "link").c_str()), 0);
  ASSERT_EQ(symlink("d", tree_path(2, "dirlink").c_str()), 0);
  ASSERT_EQ(mkfifo(tree_path(2, "fifo").c_str(), 0644), 0);
  strcpy(g_diag_params.fail_read_path, make_file(2, "injected", "0123456789").c_str());
  ASSERT_EQ(truncate(make_file(2, "huge", "").c_str(), off_t{5} << 30), 0);
  for (const auto& [path, error] : {std::pair("gone", "No such file or directory"),
                                    {"huge", "File too large"},
                                    {"injected", "Numerical argument out of domain"},
                                    {"f", "No data available"},
                                    {"d", "Is a directory"},
                                    {"link", "Too many levels of symbolic links"},
                                    {"dirlink/f", "Too many levels of symbolic links"},
                                    {"fifo", "Illegal seek"}}) {
    for (const uint32_t type : {uint32_t{PULL_ACK}, uint32_t{PUSH_REQ}}) {
      g_flight_recorder.paused = 0;
      send(type, 2, path, 5, 11);
      const auto& [header, payload] = g_cpg.sent.back();
      EXPECT_EQ(payload, update(type, 2, path, 5, 11, 0x12345678, std::string(6, '\0'),
                                kRestricted | kNoData));
      const std::string reason =
          std::string("Could not read file (") + error + "): " + tree_path(2, path);
      EXPECT_EQ(header.result.reason, reason.substr(0, 115));
      EXPECT_EQ(header.result.local_ok, 0) << "code 18";
      EXPECT_EQ(memcmp(&ctx->cpg_result, &header.result, sizeof(RpcResult)), 0);
      EXPECT_TRUE(has_logged(header.result.reason));
      EXPECT_EQ(g_flight_recorder.paused, 1) << "an error that dumps";
    }
  }
}

TEST_F(OutgoingTest, OffsetsHave32Bits) {
  const std::string path = make_file(0, "f", "");
  for (const uint32_t begin : {0x7FFFFFFEu, 0xBFFFFFFCu, 0xFFFFFFFBu}) {
    ASSERT_EQ(truncate(path.c_str(), begin), 0);
    std::ofstream(path, std::ios::app) << "tail";
    send(PULL_ACK, 0, "f", begin, begin + 4);
    EXPECT_EQ(g_cpg.sent.back().payload, update(1, 0, "f", begin, begin + 4, begin + 4, "tail"));
  }
}

TEST_F(OutgoingTest, AChunkHasItsBound) {
  make_file(0, "f", std::string(70000, 'x'));
  send(PUSH_REQ, 0, "f", 0, 65536);
  EXPECT_EQ(g_cpg.sent.back().payload.size(), 32u + 2 + 65536);
  const char text[] = "EXCEPTION: read_size <= sizeof(ctx->data_chunk_buf) = 0";
  EXPECT_ABORT(text, send(PULL_ACK, 0, "f", 0, 65537));
  EXPECT_ABORT(text, send(PUSH_REQ, 0, "f", 1, 0));
  EXPECT_ABORT("EXCEPTION: false = 0", send(PUSH_NOP, 0, "f", 0, 0));
}

TEST_F(OutgoingTest, TheQueueGoesOutOneByOneWithoutWhatStandbyMustNotWrite) {
  make_file(1, "b", "xy");
  for (const bool active : {true, false}) {
    ctx->cur_exchange_em_is_active = active;
    ctx->cur_state = ST_UPDATE;
    ctx->cur_sequence_id = 0;
    g_cpg.sent.clear();
    FileEntry* b = new_entry(PUSH_REQ, 1, "b", 0, 2);
    ctx->update_queue = new_entry(PUSH_DEL_REQ, 0, "a", 0, 0);
    ctx->update_queue->next = b;
    b->next = new_entry(PUSH_DEL_REQ, 3, "d", 0, 0);
    Texts expected;
    for (int i = 1; i <= (active ? 3 : 1); ++i) {
      update_next_chunk(ctx);
      expected.push_back("MSG_UPDATE_REQ 17." + std::to_string(i));
      ASSERT_EQ(sent_messages(), expected);
    }
    EXPECT_EQ(g_cpg.sent[active ? 1 : 0].payload, update(2, 1, "b", 0, 2, 0x12345678, "xy"));
    EXPECT_EQ(ctx->cur_state, ST_UPDATE);
    update_next_chunk(ctx);
    EXPECT_EQ(sent_messages().back(), active ? "MSG_LOCK_REL 17.3" : "MSG_LOCK_REL 17.1");
    EXPECT_EQ(ctx->cur_state, ST_DONE);
    EXPECT_EQ(ctx->cpg_result.success, 1);
  }
  for (const std::string& path : {tree_path(0, "a"), tree_path(3, "d")})
    EXPECT_TRUE(has_logged("Skipping update of entry '" + path + "' because this EM is standby"));
}

}  // namespace
