#include "tests/unit/daemon_support.h"

namespace {

// A log of the lines "function: text", with the head that each has in that kind of log.
std::string log_of(const std::string& head, const Lines& lines) {
  std::string log;
  for (std::string line : lines)
    log += head + line.insert(line.find(':'), ":7") + "\n";
  return log;
}

Lines state_change(const std::string& message, const std::string& id, const std::string& after,
                   const Lines& between = {}) {
  const std::string name = "on_sync_state_change: ";
  Lines lines = {name + "Enter state change: ST_X  " + message + " RPC_PENDING  id=0.0 hid=" + id};
  lines.insert(lines.end(), between.begin(), between.end());
  lines.push_back(name + "Exit  state change: " + after + " " + message + " RPC_PENDING id=0.0");
  return lines;
}

// What the client prints for a command line in the directory of the logs.
std::string explain(const std::string& arguments) {
  const fs::path client = fs::read_symlink("/proc/self/exe").replace_filename("cluster_sync_ctl");
  const std::string command = "cd /mnt && TZ=UTC " + client.string() + " explain " + arguments +
                              " > out 2>&1; echo $? >> out";
  return system(command.c_str()) == 0 ? read_file("/mnt/out") : "";
}

}  // namespace

TEST(Explain, TellsOfExchangesFromAnyLogOfOneEmOrOfBoth) {
  const std::string error = "Unable to update file (No space left on device): /x/\x1b<a>";
  Lines asks = {"rename_to_destination: SYNC RPC rename: src=/t dest=/x/\x1b<a>",
                "on_sync_req: Starting new exchange id=8 active=1",
                "send_cpg_command: Send CPG msg: MSG_LOCK_REQ xid=8 sid=0 payload-len=0"};
  Lines serves;
  const auto both = [&](const std::string& message, const std::string& id, bool asker,
                        const Lines& there = {}, const Lines& here = {}) {
    for (Lines* lines : {&asks, &serves}) {
      const bool own = asker == (lines == &asks);
      const Lines more =
          state_change((own ? "self:" : "peer:") + message, id,
                       lines == &asks ? "ST_UPDATE" : "ST_PEERLOCK", lines == &asks ? here : there);
      lines->insert(lines->end(), more.begin(), more.end());
    }
  };
  both("MSG_LOCK_REQ", "8.0", true);
  both("MSG_LISTING_ACK", "8.0", false, {},
       {"send_update_message: Send PUSH_REQ \x1b<a>",
        "send_cpg_command: Send CPG msg: MSG_UPDATE_REQ xid=8 sid=1 payload-len=137"});
  both("MSG_UPDATE_REQ", "8.1", true, {"answer: " + error});
  both("MSG_UPDATE_ACK", "8.1", false, {}, {"take_peer_failure: " + error});
  both("MSG_LOCK_REL", "8.1", true);
  const std::string shown = "Unable to update file (No space left on device): /x/\\x1b<a>";
  const std::string row =
      "1 pushed (100 B)                              update /t -> /x/\\x1b<a>: "
      "FAILED: " +
      shown + "\n0\n";
  write_file("/mnt/private", log_of("1700000000 (1-sync_thread) ", asks) + "no trace\n7: x:8 \n");
  EXPECT_TRUE(explain("private").ends_with("1  2023-11-14 22:13:20  this EM        0 s  " + row));
  // A journal of another second, where the private log's lines were dumped.
  write_file("/mnt/dump", log_of("Nov 14 22:13:21 em CLUS_SYNC[1]: dump_flight_recorder:7: "
                                 "1700000000 (1-sync_thread) ",
                                 asks));
  EXPECT_TRUE(explain("- < dump").ends_with(" 22:13:20  this EM        0 s  " + row));
  write_file("/mnt/peer", log_of("2023-11-14T22:13:22.5+00:00 em CLUS_SYNC[1]: ", serves));
  EXPECT_TRUE(explain("peer private").ends_with("22:13:20  second EM      0 s  " + row));
  const std::string drawn = explain("peer private --exchange 1");
  EXPECT_NE(drawn.find("ST_UPDATE   |-- MSG_UPDATE_REQ 1 PUSH_REQ \\x1b<a>, 137 B ------"),
            std::string::npos)
      << drawn;
  EXPECT_NE(drawn.find("->| ST_PEERLOCK\n         >>> " + shown), std::string::npos) << drawn;
  EXPECT_EQ(explain("peer private --exchange 1 --svg svg"), "0\n");
  EXPECT_NE(read_file("/mnt/svg").find("PUSH_REQ \\x1b&#60;a&#62;, 137 B</text>"),
            std::string::npos);
  // The beginning is missing, and the end; torn anywhere it is read as far as it goes.
  const std::string all = read_file("/mnt/private");
  for (size_t from = 0; from < all.size(); from += 97) {
    write_file("/mnt/torn", all.substr(from, 1500));
    EXPECT_TRUE(explain("torn").ends_with(from < 1200 ? "\n0\n" : "\n1\n")) << from;
  }
  EXPECT_TRUE(explain("peer private --exchange 2").ends_with("no such exchange\n1\n"));
  write_file("/mnt/low",
             "Nov 14 22:13:21 em CLUS_SYNC[1]: end_exchange_full_v:88: Sync Error: x\n");
  EXPECT_NE(explain("low").find("BREL_LOG_LEVEL=7"), std::string::npos);
}
