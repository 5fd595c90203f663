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
                              uint32_t end, uint32_t file_size, bool restricted) {
    FileEntry* entry = new_file_entry(root, root_paths[root], path);
    entry->update_type = type;
    entry->begin_offs = begin;
    entry->end_offs = end;
    entry->file_size = file_size;
    entry->restricted = restricted;
    return entry;
  }

  void send(uint32_t type, uint32_t root, const char* path, uint32_t begin, uint32_t end,
            uint32_t file_size = 0, bool restricted = false, const RpcResult* result = nullptr) {
    FileEntry* entry = new_entry(type, root, path, begin, end, file_size, restricted);
    send_update_message(ctx, entry, entry->path, result);
    free_file_entry(entry);
  }

  void queue(uint32_t type, uint32_t root, const char* path, uint32_t end = 0) {
    FileEntry** last = &ctx->update_queue;
    while (*last != nullptr)
      last = &(*last)->next;
    *last = new_entry(type, root, path, 0, end, 0, false);
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
    send(type, 1, "d/f", 2, 6, 0x12345678, true);
    ASSERT_EQ(g_cpg.sent.size(), type + 1);
    const auto& [header, payload] = g_cpg.sent.at(g_cpg.sent.size() - 1);
    std::string bytes;
    for (int i = 0; i < 64; i += 2)
      bytes += static_cast<char>(std::stoi(std::string(c.header + i, 2), nullptr, 16));
    EXPECT_EQ(payload, bytes + "d/f" + '\0' + c.data) << c.name;
    EXPECT_EQ(header.command, answer ? 5u : 4u) << c.name;
    EXPECT_EQ(header.flags, answer ? 1u : 0u) << c.name;
    EXPECT_EQ(header.exchange_id, answer ? 0x33u : 0x11u) << c.name;
    EXPECT_EQ(header.sequence_id, answer ? 0x44u : 0x22u) << c.name;
    EXPECT_EQ(header.result.success, 1);
    EXPECT_TRUE(has_logged(std::string("Send ") + c.name + " d/f"));
  }
  EXPECT_EQ(ctx->cpg_result.success, 1);
}

TEST_F(OutgoingTest, ModeAndSizeAreThoseOfTheMoment) {
  for (const mode_t mode : {0644u, 0664u, 0755u, 0640u, 0600u}) {
    const bool restricted = mode == 0640 || mode == 0600;
    make_file(0, "f", std::string(300, 'x'), mode);
    g_cpg.sent.clear();
    send(PULL_ACK, 0, "f", 299, 300, 7, !restricted);
    send(PUSH_REQ, 0, "f", 0, 0, 7, !restricted);
    ASSERT_EQ(g_cpg.sent.size(), 2u);
    EXPECT_EQ(g_cpg.sent[0].payload, update(1, 0, "f", 299, 300, 300, "x", restricted)) << mode;
    EXPECT_EQ(g_cpg.sent[1].payload, update(2, 0, "f", 0, 0, 7, "", restricted)) << mode;
  }
}

TEST_F(OutgoingTest, WhatCannotBeReadIsSentWithoutData) {
  make_file(2, "f", "0123456789", 0600);
  make_file(2, "d/f", "0123456789");
  ASSERT_EQ(symlink("f", tree_path(2, "link").c_str()), 0);
  ASSERT_EQ(symlink("d", tree_path(2, "dirlink").c_str()), 0);
  ASSERT_EQ(mkfifo(tree_path(2, "fifo").c_str(), 0644), 0);
  strcpy(g_diag_params.fail_read_path, make_file(2, "injected", "0123456789").c_str());
  const struct {
    const char* path;
    const char* error;
  } cases[] = {{"gone", "No such file or directory"},
               {"injected", "Numerical argument out of domain"},
               {"f", "No data available"},
               {"d", "Is a directory"},
               {"d/f/x", "Not a directory"},
               {"link", "Too many levels of symbolic links"},
               {"dirlink/f", "Too many levels of symbolic links"},
               {"fifo", "Illegal seek"}};
  for (const auto& c : cases) {
    for (const uint32_t type : {uint32_t{PULL_ACK}, uint32_t{PUSH_REQ}}) {
      reset_cpg_result(ctx);
      g_flight_recorder.paused = 0;
      send(type, 2, c.path, 5, 11, 99, true);
      const SentMessage& message = g_cpg.sent.at(g_cpg.sent.size() - 1);
      EXPECT_EQ(message.payload,
                update(type, 2, c.path, 5, 11, 99, std::string(6, '\0'), kRestricted | kNoData));
      const std::string reason =
          std::string("Could not read file (") + c.error + "): " + tree_path(2, c.path);
      EXPECT_EQ(message.header.result.reason, reason.substr(0, 115));
      EXPECT_EQ(message.header.result.success, 0);
      EXPECT_EQ(message.header.result.local_ok, 0) << "code 18";
      EXPECT_EQ(memcmp(&ctx->cpg_result, &message.header.result, sizeof(RpcResult)), 0);
      EXPECT_TRUE(has_logged(reason.substr(0, 115)));
      EXPECT_EQ(g_flight_recorder.paused, 1) << "an error that dumps";
    }
  }
}

TEST_F(OutgoingTest, AGivenFailureTravelsAndStays) {
  RpcResult failure;
  storage_cfg_set_result(&failure, 20, "no room");
  send(PUSH_ACK, 1, "f", 0, 1, 1, false, &failure);
  EXPECT_EQ(memcmp(&g_cpg.sent.at(g_cpg.sent.size() - 1).header.result, &failure, sizeof(failure)),
            0);
  EXPECT_EQ(memcmp(&ctx->cpg_result, &failure, sizeof(failure)), 0);
}

TEST_F(OutgoingTest, AChunkHasItsBound) {
  make_file(0, "f", std::string(70000, 'x'));
  send(PUSH_REQ, 0, "f", 0, 65536);
  EXPECT_EQ(g_cpg.sent.at(g_cpg.sent.size() - 1).payload.size(), 32u + 2 + 65536);
  send(PULL_REQ, 0, "f", 0, 65537);  // carries no data
  EXPECT_EQ(ctx->cpg_result.success, 1);
  const char text[] = "EXCEPTION: read_size <= sizeof(ctx->data_chunk_buf) = 0";
  EXPECT_ABORT(text, send(PULL_ACK, 0, "f", 0, 65537));
  EXPECT_ABORT(text, send(PUSH_REQ, 0, "f", 1, 0));
}

TEST_F(OutgoingTest, OnlyUpdatesCanBeSent) {
  EXPECT_ABORT("EXCEPTION: false = 0", send(PUSH_NOP, 0, "f", 0, 0));
  EXPECT_ABORT("EXCEPTION: false = 0", send(7, 0, "f", 0, 0));
}

TEST_F(OutgoingTest, TheQueueGoesOutOneByOne) {
  make_file(1, "b", "xy");
  ctx->cur_exchange_em_is_active = 1;
  queue(PUSH_DEL_REQ, 0, "a");
  queue(PUSH_REQ, 1, "b", 2);
  queue(PUSH_DEL_REQ, 3, "d");
  for (int i = 0; i < 3; ++i)
    update_next_chunk(ctx);
  EXPECT_EQ(ctx->cur_state, ST_UPDATE);
  update_next_chunk(ctx);
  EXPECT_EQ(sent_messages(), Texts({"MSG_UPDATE_REQ 17.1", "MSG_UPDATE_REQ 17.2",
                                    "MSG_UPDATE_REQ 17.3", "MSG_LOCK_REL 17.3"}));
  EXPECT_EQ(g_cpg.sent[1].payload, update(2, 1, "b", 0, 2, 0, "xy"));
  EXPECT_EQ(ctx->cur_state, ST_DONE);
  EXPECT_EQ(ctx->cpg_result.success, 1);
}

TEST_F(OutgoingTest, StandbyDoesNotWriteTheActiveTrees) {
  queue(PUSH_DEL_REQ, 0, "a");
  queue(PUSH_DEL_REQ, 3, "d");
  queue(PUSH_DEL_REQ, 1, "b");
  queue(PUSH_DEL_REQ, 3, "e");
  update_next_chunk(ctx);
  EXPECT_EQ(g_cpg.sent.at(g_cpg.sent.size() - 1).payload, update(4, 1, "b", 0, 0, 0));
  update_next_chunk(ctx);
  EXPECT_EQ(sent_messages(), Texts({"MSG_UPDATE_REQ 17.1", "MSG_LOCK_REL 17.1"}));
  EXPECT_EQ(ctx->cur_state, ST_DONE);
  for (const std::string& path : {tree_path(0, "a"), tree_path(3, "d"), tree_path(3, "e")}) {
    EXPECT_TRUE(has_logged("Skipping update of entry '" + path + "' because this EM is standby"));
  }
}

TEST_F(OutgoingTest, AFailedSendEndsTheExchange) {
  g_diag_params.cpg_send_fail = 1;
  queue(PUSH_DEL_REQ, 1, "a");
  queue(PUSH_DEL_REQ, 1, "b");
  update_next_chunk(ctx);
  EXPECT_STREQ(ctx->cpg_result.reason, "Call to cpg_mcast_joined failed with code 21");
  EXPECT_EQ(ctx->cur_state, ST_DONE);
  EXPECT_EQ(ctx->update_queue, nullptr);
}

}  // namespace
