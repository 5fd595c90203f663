#include "redundancy_health/transport/cpg_message.h"

#include <string.h>

#include "redundancy_health/frame/diag_params.h"
#include "redundancy_health/frame/flight_recorder.h"
#include "tests/unit/daemon_support.h"

using std::string_literals::operator""s;

namespace {

std::string bytes_of(const void* data, size_t size) {
  return {static_cast<const char*>(data), size};
}

// The 128 bytes of a success record.
std::string success_record() {
  return std::string("\x01\x01\x01\0\0\0\0\0N\0\0\0", 12) + std::string(116, '\0');
}

class CpgMessageTest : public DaemonTest {
 protected:
  CpgMessageTest() {
    g_flight_recorder.paused = 1;  // level 3 is what is logged, not its dump
    ctx->cur_exchange_id = 0x01020304;
    ctx->cur_sequence_id = 5;
    ctx->peer_exchange_id = 0xFFFFFFFE;
    ctx->peer_sequence_id = 7;
    ctx->cur_state = ST_LISTREQ;
  }
};

}  // namespace

TEST_F(CpgMessageTest, EveryCommandGoesOutAsItsBytes) {
  // The 12 bytes behind the command.
  const char own[] = "\0\0\0\0\x04\x03\x02\x01\x05\0\0\0";
  const char no_end[] = "\x02\0\0\0\x04\x03\x02\x01\x05\0\0\0";
  const char reply[] = "\x01\0\0\0\xFE\xFF\xFF\xFF\x07\0\0\0";
  const struct {
    uint32_t command, flags;
    const char* fields;
    const char* line;
  } rows[] = {{MSG_LOCK_REQ, 0, own, "MSG_LOCK_REQ     xid=16909060 sid=5"},
              {MSG_LOCK_REL, FLAG_NO_END, no_end, "MSG_LOCK_REL     xid=16909060 sid=5"},
              {MSG_LISTING_REQ, 0, own, "MSG_LISTING_REQ  xid=16909060 sid=5"},
              {MSG_LISTING_ACK, FLAG_PEER_EXCHANGE, reply, "MSG_LISTING_ACK  xid=4294967294 sid=7"},
              {MSG_UPDATE_REQ, 0, own, "MSG_UPDATE_REQ   xid=16909060 sid=5"},
              {MSG_UPDATE_ACK, FLAG_PEER_EXCHANGE, reply, "MSG_UPDATE_ACK   xid=4294967294 sid=7"}};
  for (const auto& row : rows) {
    send_cpg_command(ctx, row.command, row.flags, nullptr, "pay\0load", 9);
    EXPECT_EQ(logged(7).back(), std::string("Send CPG msg: ") + row.line + " payload-len=9");
    ASSERT_FALSE(g_cpg.sent.empty());
    EXPECT_EQ(bytes_of(&g_cpg.sent.back().header, 148),
              std::string("\xFA\xA1\x1F\x0A") + static_cast<char>(row.command) + "\0\0\0"s +
                  bytes_of(row.fields, 12) + success_record());
    EXPECT_EQ(g_cpg.sent.back().payload, "pay\0load\0"s);
  }
}

TEST_F(CpgMessageTest, CarriesTheGivenRecordAndNoPayload) {
  RpcResult result;
  memset(&result, 0xA5, sizeof(result));
  send_cpg_command(ctx, MSG_UPDATE_ACK, FLAG_PEER_EXCHANGE, &result, nullptr, 0);
  ASSERT_EQ(g_cpg.sent.size(), 1u);
  EXPECT_EQ(bytes_of(&g_cpg.sent[0].header.result, 128), std::string(128, '\xA5'));
  EXPECT_EQ(g_cpg.sent[0].payload, "");
}

TEST_F(CpgMessageTest, RetriesOnlyAFullQueueAndOnlyAHundredTimes) {
  const std::deque<cs_error_t> full(100, CS_ERR_TRY_AGAIN);
  const std::string failed = "Call to cpg_mcast_joined failed with code ";
  const struct {
    std::deque<cs_error_t> answers;
    int calls;  // a failure's release included
    std::string reason, sent;
  } rows[] = {{{full.begin() + 1, full.end()}, 100, "", "MSG_LISTING_REQ 16909060.5"},
              {full, 101, failed + "6", "MSG_LOCK_REL 16909060.5"},
              {{CS_ERR_LIBRARY}, 2, failed + "2", "MSG_LOCK_REL 16909060.5"},
              {{CS_ERR_TRY_AGAIN, CS_ERR_BAD_HANDLE}, 3, failed + "9", "MSG_LOCK_REL 16909060.5"}};
  for (const auto& row : rows) {
    g_cpg.sent.clear();
    g_cpg.mcast_calls = 0;
    g_cpg.mcast_results = row.answers;
    reset_cpg_result(ctx);
    ctx->cur_state = ST_LISTREQ;
    send_cpg_command(ctx, MSG_LISTING_REQ, 0, nullptr, nullptr, 0);
    EXPECT_EQ(g_cpg.mcast_calls, row.calls);
    EXPECT_EQ(ctx->cpg_result.reason, row.reason);
    EXPECT_EQ(ctx->cpg_result.success, row.reason.empty());
    EXPECT_EQ(ctx->cur_state, row.reason.empty() ? ST_LISTREQ : ST_DONE);
    EXPECT_EQ(sent_messages(), std::vector<std::string>{row.sent});
  }
  EXPECT_EQ(logged(3), (std::vector<std::string>{rows[1].reason, rows[2].reason, rows[3].reason}));
}

TEST_F(CpgMessageTest, AFailedSendNeverHidesAnEarlierError) {
  storage_cfg_set_result(&ctx->cpg_result, 20, "first");
  g_cpg.mcast_results = {CS_ERR_LIBRARY};
  send_cpg_command(ctx, MSG_UPDATE_REQ, 0, nullptr, nullptr, 0);
  EXPECT_STREQ(ctx->cpg_result.reason, "first");
  EXPECT_EQ(logged(3), std::vector<std::string>());
  EXPECT_EQ(ctx->cur_state, ST_DONE);
}

TEST_F(CpgMessageTest, WithoutEndTheExchangeGoesOn) {
  g_cpg.mcast_results = {CS_ERR_LIBRARY};
  send_cpg_command(ctx, MSG_LOCK_REL, FLAG_NO_END, nullptr, nullptr, 0);
  EXPECT_STREQ(ctx->cpg_result.reason, "Call to cpg_mcast_joined failed with code 2");
  EXPECT_EQ(ctx->cur_state, ST_LISTREQ);
  EXPECT_EQ(g_cpg.mcast_calls, 1);
}

TEST_F(CpgMessageTest, InjectedFailureKeepsEveryMessageBack) {
  g_diag_params.cpg_send_fail = 1;
  send_cpg_command(ctx, MSG_LISTING_REQ, 0, nullptr, nullptr, 0);
  EXPECT_EQ(g_cpg.mcast_calls, 0);
  EXPECT_STREQ(ctx->cpg_result.reason, "Call to cpg_mcast_joined failed with code 21");
  EXPECT_EQ(logged(3), std::vector<std::string>{"Call to cpg_mcast_joined failed with code 21"})
      << "the failing release says nothing new";
  EXPECT_EQ(ctx->cur_state, ST_DONE);
  g_diag_params.cpg_send_fail = 0;
  send_cpg_command(ctx, MSG_LISTING_REQ, 0, nullptr, nullptr, 0);
  EXPECT_EQ(g_cpg.mcast_calls, 1);
}

TEST_F(CpgMessageTest, ChecksTheIdsOfAHeader) {
  ctx->cur_exchange_id = 5;
  ctx->cur_sequence_id = 3;
  ctx->peer_exchange_id = 9;
  struct {
    uint32_t exchange_id;
    uint32_t sequence_id;
    uint32_t flags;
    std::vector<std::string> errors;
  } const rows[] = {
      {5, 99, 0, {}},
      {9, 3, 0, {"Mismatched exchange ID in message: expected 5, got 9"}},
      {9, 99, FLAG_PEER_EXCHANGE, {}},
      {5, 3, FLAG_PEER_EXCHANGE, {"Mismatched exchange ID in message: expected 9, got 5"}},
      {5, 3, FLAG_CHECK_SEQUENCE, {}},
      {5,
       4294967295u,
       FLAG_CHECK_SEQUENCE,
       {"Mismatched sequence_id ID in message: expected 3, got 4294967295"}},
      {6,
       4,
       FLAG_CHECK_SEQUENCE,
       {"Mismatched exchange ID in message: expected 5, got 6",
        "Mismatched sequence_id ID in message: expected 3, got 4"}},
      {9,
       7,
       FLAG_PEER_EXCHANGE | FLAG_CHECK_SEQUENCE,
       {"Mismatched sequence_id ID in message: expected 3, got 7"}},
  };
  std::vector<std::string> lines;
  for (const auto& row : rows) {
    g_cpg.sent.clear();
    reset_cpg_result(ctx);
    check_header_ids(ctx, row.exchange_id, &row.sequence_id, row.flags);
    EXPECT_EQ(g_cpg.sent.size(), row.errors.size()) << "one release for each error";
    EXPECT_EQ(ctx->cpg_result.reason, row.errors.empty() ? "" : row.errors.back());
    for (const std::string& error : row.errors)
      lines.push_back("Sync Error: " + error);
  }
  EXPECT_EQ(logged(3), lines);
}

TEST_F(CpgMessageTest, AcceptsOnlyMessagesOfTheProtocol) {
  const auto message = [](const char* magic, const char* command) {
    return bytes_of(magic, 4) + bytes_of(command, 4) +
           std::string("\0\0\0\0\x08\0\0\0\x02\0\0\0", 12) + std::string(128, '\0');
  };
  const std::string lock_req = message("\xFA\xA1\x1F\x0A", "\0\0\0\0");
  ctx->cur_state = ST_UNLOCKED;
  deliver_from_peer(lock_req);
  EXPECT_EQ(ctx->cur_state, ST_PEERLOCK);
  EXPECT_EQ(ctx->peer_exchange_id, 8u);
  EXPECT_EQ(ctx->peer_sequence_id, 2u);

  std::vector<std::string> rejected = {"", lock_req.substr(0, 147),
                                       message("\x0A\x1F\xA1\xFA", "\0\0\0\0"),
                                       message("\xFA\xA1\x1F\x0A", "\xFF\xFF\xFF\xFF")};
  for (const char* command : {"\x06\0\0", "\x07\0\0", "\x08\0\0", "\x09\0\0", "\x0A\0\0"})
    rejected.push_back(message("\xFA\xA1\x1F\x0A", command));
  for (const std::string& bytes : rejected) {
    g_cpg.sent.clear();
    ctx->cur_state = ST_PEERLOCK;
    reset_cpg_result(ctx);
    deliver_from_peer(bytes);
    EXPECT_STREQ(ctx->cpg_result.reason, "Invalid CPG message received");
    EXPECT_EQ(ctx->cur_state, ST_DONE);
    EXPECT_EQ(sent_messages(), std::vector<std::string>{"MSG_LOCK_REL 16909060.5"});
  }
}
