// What an exchange counts, reports and logs, and the explanation of its trace.

#include "redundancy_health/exchange/state_machine.h"

#include <algorithm>

#include "redundancy_health/catalog/roots.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/transport/exchange_outcome.h"
#include "tests/unit/daemon_support.h"

namespace {

class ExchangeTest : public DaemonTest {
 protected:
  // Delivers the sent messages, except the one with the number `lost`, and the answers of a peer
  // that has empty trees and accepts everything.
  void settle(size_t lost = SIZE_MAX) {
    for (size_t next = delivered_; next < g_cpg.sent.size(); delivered_ = ++next) {
      SentMessage message = g_cpg.sent[next];
      const bool is_update = message.header.command == MSG_UPDATE_REQ;
      if (next == lost) continue;
      deliver_own(message);
      if (!is_update && message.header.command != MSG_LISTING_REQ) continue;
      message.header.command += 1;
      message.payload = is_update ? update(PUSH_ACK, 0, "any", 0, 0, 0) : "";
      deliver_from_peer(bytes_of(message));
    }
  }

  // A local request, by default a sync, up to its answer.
  void ask(const std::string& source = "", const std::string& destination = "",
           size_t lost = SIZE_MAX) {
    g_cpg.sent.clear();
    delivered_ = 0;
    request(source, destination);
    settle(lost);
    if (lost != SIZE_MAX) end_exchange_error(ctx, "Operation timed out");
    settle();
    EXPECT_EQ(+ctx->rpc_stage, RPC_COMPLETE);
    ctx->rpc_stage = RPC_IDLE;
  }

 private:
  size_t delivered_ = 0;
};

}  // namespace

// The output of a shell in /mnt, without the year, with each run of blanks as a bar and each run of
// dashes as one; and its exit status.
static std::string print(const std::string& command) {
  const fs::path programs = fs::read_symlink("/proc/self/exe").parent_path();
  write_file("/mnt/do", "cd /mnt; export TZ=UTC PATH=" + programs.string() + ":$PATH; (" + command +
                            ") > out 2>&1; echo $? >> out\n"
                            "sed -i 's/--\\+/-/g; s/  \\+/|/g; s/20[0-9][0-9]-/Y-/g' out");
  return system("sh /mnt/do") == 0 ? read_file("/mnt/out") : "";
}

// An exchange without a peer, and one whose second message is lost; from one log and from two.
TEST_F(ExchangeTest, IsExplainedFromItsTrace) {
  unlink("/tmp/cluster_sync_daemon.log");
  set_active(true);
  g_diag_params.max_log_size = -1;
  ctx->cpg_membership_flags = kSelfMember;
  ask();
  ctx->cpg_membership_flags |= kPeerMember;
  ask(make_file(0, "TempUpdate_", "abc"), tree_path(0, "\x1b<a>"), 2);
  const std::string to_fixed = "sed 's/^ *[0-9]*/1700000000/' /tmp/cluster_sync_daemon.log > ";
  print(to_fixed + "log; rm /tmp/cluster_sync_daemon.log");
  for (const auto& [command, sequence_id, payload] :
       {std::tuple(MSG_LOCK_REQ, 0u, std::string()),
        {MSG_LISTING_REQ, 0u, std::string(2, '\0')},
        {MSG_UPDATE_REQ, 1u, push(1, "theirs", "abc")},
        {MSG_UPDATE_REQ, 2u, update(PULL_REQ, 2, "pushed too", 0, 7, 0)},
        {MSG_LOCK_REL, 2u, std::string()}}) {
    deliver_from_peer(message_bytes(command, 41, sequence_id, payload));
    settle();
  }
  g_diag_params.max_log_size = 0;
  print(to_fixed + "peer; rm /tmp/cluster_sync_daemon.log; sed -i s/=41/=2/g peer");

  const std::string at = "|Y-11-14 22:13:20|", explain = "cluster_sync_ctl explain ";
  const std::string alone = " EM|0 s|nothing|sync: success here, the other EM is away\n|2" + at;
  const std::string failure = "Operation timed out\n";
  const std::string row = " EM|0 s|1 pushed (3 B)|put \\x1b<a>: FAILED: " + failure + "0\n";
  const std::string table = "it ended\n|1" + at + "this" + alone + "this" + row;
  const std::string of_host = "it ended\n|1" + at + "em" + alone.substr(3) + "em" + row.substr(3);
  const auto records = [](const std::string& head, const std::string& tail) {
    return "sed 's/\x1b/\\\\x1b/; s/^.*) //; s/^/" + head + "/; s/$/" + tail + "/' log | ";
  };
  const std::string time = "__REALTIME_TIMESTAMP";
  for (const auto& [command, printed] : std::vector<std::pair<std::string, std::string>>{
           {explain + "log", table},
           {records("Nov 14 22:13:20 em CLUS_SYNC[1]: ", "") + explain, of_host},
           {records("Tue 2023-11-14 22:13:20 UTC em d.service[1]: ", "") + "TZ=CET " + explain,
            "it ended\n|1|Y-11-14 23:13:20|em" + alone.substr(3, alone.size() - at.size() - 3) +
                "|Y-11-14 23:13:20|em" + row.substr(3)},
           {records("2023-11-14T23:13:20+0100 em CLUS_SYNC[1]: ", "") + explain, of_host},
           {records("{\"" + time + "\":\"1700000000000000\",\"_HOSTNAME\":\"em\",\"MESSAGE\":\"",
                    "\"}") +
                "sed 's/.x1b/\\\\\\\\x1b/' | " + explain,
            of_host},
           {records("__CURSOR=1\\n" + time + "=1700000000000000\\n_HOSTNAME=em\\nMESSAGE=", "\\n") +
                explain,
            of_host},
           {"echo { | " + explain, "or short-iso-precise\n1\n"},
           // The clock of the second EM is a minute ahead.
           {"sed s/1700000000/1700000060/ log > late; " + explain + "peer late 2>&1 | tail -n 1; " +
                explain + "peer late 2>&1 > /dev/null",
            "second" + row.substr(0, row.size() - 2) +
                "cluster_sync_ctl: the clock of second EM is 60 s ahead of that of first EM, whose "
                "times these are\n0\n"},
           {explain +
                "log --json --exchange 2 | /usr/bin/python3 -c 'import json,sys; "
                "x = json.load(sys.stdin); print(x[\"pushed\"], x[\"steps\"][-1][\"sequence\"])'",
            "{'files': 1, 'bytes': 3} 1\n0\n"},
           {"sed 's/^/<3> dump_flight_recorder:7: /' log log | " + explain + "-", table},
           {explain + "peer log", "|1" + at + "second" + alone + "second" + row},
           // The end of one exchange and the beginning of the next are missing.
           {"(sed '/LISTING_ACK/,$d' log; sed '1,/LISTING_REQ/d; s/=2/=3/g' log) | " + explain,
            ": its end is not in the log\n|3" + at +
                "this EM|0 s|1 pushed (3 B)|its beginning is not in the log: FAILED: " + failure +
                "0\n"},
           {explain + "peer log --exchange 2",
            "\n22:13:20|ST_UPDATE||<- MSG_LISTING_ACK, 68 B -| ST_PEERLOCK\n22:13:20||- "
            "MSG_UPDATE_REQ 1 PUSH_REQ \\x1b<a>, 40 B, not delivered|X| ST_PEERLOCK\n|>>> " +
                failure + "22:13:20|ST_UNLOCKED |- MSG_LOCK_REL ->| \n0\n"},
           {explain + "log --exchange 2 --svg svg && grep -o 'PUSH_REQ.*<' svg",
            "PUSH_REQ \\x1b&#60;a&#62;, 40 B, not delivered<\n0\n"},
           {explain + "log --exchange 3", "no such exchange\n1\n"},
           {"grep Exit log | " + explain, "/tmp/cluster_sync_daemon.log\n1\n"}}) {
    const std::string output = print(command);
    EXPECT_TRUE(output.ends_with(printed)) << command << "\n" << output;
  }
}

TEST_F(ExchangeTest, WhatItHasChangedHereIsTold) {
  const std::string shared = tree_path(0, "d/f"), copy = tree_path(2, "large");
  const std::string deleted = "Deleted 2 files which the other EM no longer has, first '";
  for (const bool active : {true, false}) {
    set_active(active);
    make_file(0, "d/f", "content");
    make_file(2, "large", pattern(70000));
    deliver_from_peer(message_bytes(MSG_LOCK_REQ, 9, 0));
    for (const std::string& change :
         {update(PUSH_DEL_REQ, 0, "d/f", 0, 7, 0), update(PUSH_DEL_REQ, 1, "large", 0, 1, 0),
          update(PUSH_DEL_REQ, 1, "large", 1, 2, 0), update(PUSH_REQ, 0, "n", 0, 1, 1, "x")})
      deliver_from_peer(message_bytes(MSG_UPDATE_REQ, 9, 0, change));
    EXPECT_EQ(+ctx->both_active, active);
    deliver_from_peer(message_bytes(MSG_LOCK_REL, 9, 0));
    EXPECT_EQ(+ctx->both_active, active);
    EXPECT_EQ(logged(3), Lines{"The other EM is active, too: it has changed '" + shared + "'"});
  }
  EXPECT_EQ(logged(4), Lines(2, deleted + shared + "'"));
  set_active(true);
  ctx->both_active = 1;
  make_file(2, "large", pattern(70000));
  make_file(2, "small", "content");
  make_file(1, "pushed too", "content");
  ask();
  EXPECT_EQ(+ctx->both_active, 0) << "an exchange without a change";
  ASSERT_EQ(logged(4).size(), 3u) << "one line an exchange";
  EXPECT_TRUE(logged(4)[2].starts_with(deleted));
}

TEST_F(ExchangeTest, CountsWhatIsAFaultAndReportsALastingOne) {
  const struct {
    bool active = true, peer = true;
    uint32_t flags = RESULT_EXCHANGE_FAILED;
    bool recorded = false;  // a failure was recorded earlier
    int32_t errors = 0, countdown = -1;
    std::string after;  // errors, countdown, status of the event (0: none)
  } rows[] = {
      {.flags = RESULT_OK, .errors = 3, .countdown = 50, .after = "0 -1 1"},
      {.after = "1 5 1"},
      {.errors = 1, .countdown = 3, .after = "2 3 4"},
      {.flags = RESULT_OK, .recorded = true, .errors = 1, .after = "2 5 4"},
      {.peer = false, .errors = 1, .countdown = 9, .after = "1 9 0"},
      {.flags = RESULT_REFUSED, .errors = 1, .countdown = 9, .after = "1 9 0"},
      {.flags = RESULT_REFUSED_BENIGN, .errors = 1, .countdown = 9, .after = "1 9 0"},
      {.flags = RESULT_REFUSED_NOT_ACTIVE, .errors = 1, .countdown = 9, .after = "1 9 0"},
      {.flags = kCodeNoExchange | RESULT_EXCHANGE_FAILED, .after = "1 5 1"},
      {.active = false, .errors = 3, .countdown = 50, .after = "0 -1 0"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    set_active(row.active);
    unlink("/var/run/em/events/0x80000702");
    g_cpg.sent.clear();
    g_flight_recorder.paused = 0;
    ctx->cur_state = ST_UPDATE;
    ctx->cpg_membership_flags = row.peer ? kSelfMember | kPeerMember : kSelfMember;
    ctx->consecutive_errors = row.errors;
    ctx->resync_countdown = row.countdown;
    storage_cfg_set_result(&ctx->cpg_result, row.recorded ? 20 : 0, nullptr);
    ctx->update_queue = new_file_entry(0, root_paths[0], "left");
    end_exchange_full(ctx, row.flags, "text %d", 7);
    EXPECT_EQ(std::to_string(ctx->consecutive_errors) + " " +
                  std::to_string(ctx->resync_countdown) + " " + std::to_string(fault_status()),
              row.after);
    EXPECT_STREQ(ctx->cpg_result.reason, row.flags == 0 ? "" : "text 7");
    EXPECT_EQ(ctx->cpg_result.peer_present, row.peer ? 0x59u : 0x4Eu);
    EXPECT_EQ(g_flight_recorder.paused, row.flags != 0 && (row.flags & 8) == 0) << "no benign one";
    const bool released = (row.flags & 0x20) == 0;
    EXPECT_EQ(ctx->cur_state, released ? ST_DONE : ST_UPDATE);
    EXPECT_EQ(g_cpg.sent.size(), released);
    EXPECT_EQ(ctx->update_queue, nullptr);
  }
}

TEST_F(ExchangeTest, AComparisonChangesNothingAndSaysNothingOfFaults) {
  set_active(true);
  make_file(0, "same", "abc");
  make_file(0, "large", pattern(kChunkSize + 1));
  make_file(1, "line\nfeed", "", 0600);
  const std::string copy = make_file(2, "the peer has it no more", "abc");
  ctx->consecutive_errors = 1;
  ctx->resync_countdown = 50;
  publish();
  ctx->rpc_msg = nullptr;
  ctx->current_rpc_size = 0;
  ctx->rpc_compare = 1;
  on_sync_rpc_update(ctx);
  deliver_from_peer(message_bytes(MSG_LOCK_REQ, 7, 0));  // the peer's request came first
  deliver_own(g_cpg.sent.back());
  deliver_from_peer(message_bytes(MSG_LOCK_REL, 7, 0));
  deliver_own(g_cpg.sent.back());
  EXPECT_EQ(g_cpg.sent.back().payload, "");
  const std::string listing[] = {
      "A " SHA_ABC " 00000000 00000003 G same", "A " SHA_A " 00000000 00000001 G large",
      "Q " SHA_EMPTY " 00000000 00000000 G line\nfeed", "V " SHA_ABC " 00000000 00000003 G there"};
  std::string payload;
  for (const std::string& line : listing)
    payload += line + '\0';
  deliver_from_peer(message_bytes(MSG_LISTING_ACK, 2, 0, payload));
  deliver_own(g_cpg.sent.back());
  EXPECT_EQ(sent_messages(), (Lines{"MSG_LOCK_REQ 1.0", "MSG_LOCK_REQ 2.0", "MSG_LISTING_REQ 2.0",
                                    "MSG_LOCK_REL 2.0"}));
  EXPECT_EQ(ctx->rpc_result.success, 1) << ctx->rpc_result.reason;
  std::string report(1000, '\0');
  report.resize(static_cast<size_t>(pread(ctx->rpc_report, report.data(), report.size(), 0)));
  std::replace(report.begin(), report.end(), '\0', ';');
  EXPECT_EQ(report,
            "=active 2 2 0 0 1;=volatile 0 1 0 1 0;=own 1 1 0 0 1;=copy 1 0 1 0 0;"
            "!active/large;!own/line\nfeed;<copy/the peer has it no more;>volatile/there;");
  close(std::exchange(ctx->rpc_report, -1));
  EXPECT_EQ(read_file(copy), "abc");
  EXPECT_EQ(ctx->consecutive_errors, 1);
  EXPECT_EQ(ctx->resync_countdown, 50);
  EXPECT_EQ(fault_status(), 0u);
}
