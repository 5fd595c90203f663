#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "redundancy_health/catalog/file_entry.h"
#include "tests/fuzz/sandbox.h"

namespace {

std::string g_directory;

void write_seed(const std::string& target, const std::string& seed) {
  static int number = 0;
  std::filesystem::create_directories(g_directory + "/" + target);
  if (!(std::ofstream(g_directory + "/" + target + "/" + std::to_string(number++)) << seed))
    exit(1);
}

std::string block(const std::string& bytes) {
  return std::string{static_cast<char>(bytes.size()), static_cast<char>(bytes.size() >> 8)} + bytes;
}

// Group steps: a message from the peer with the right ids, and the next own one that comes back.
std::string from_peer(uint32_t command, const std::string& payload) {
  return std::string{kDeliverFitting, static_cast<char>(command)} + block(payload);
}
const std::string kOwnBack(1, kDeliverOwn);

// What the daemon answers as responder.
std::string record_answer(uint32_t command, const std::string& request) {
  start_run(true);
  lock_by_peer();
  deliver_request(command, request);
  return g_cpg.sent.back().payload;
}

// The update requests of an exchange against `listing`.
std::vector<std::string> record_requests(const std::string& listing) {
  std::vector<std::string> requests;
  start_comparison(listing);
  while (g_context.cur_state == ST_UPDATE) {
    requests.push_back(g_cpg.sent.back().payload);
    accept_update();
  }
  return requests;
}

// Two of the peer's lines differ from this EM's, one file is the peer's alone.
std::string differing(std::string listing) {
  for (size_t i = 2; i < listing.size(); i += listing.size() / 2)
    listing[i] = listing[i] == '0' ? '1' : '0';
  const size_t line = listing.find("small");
  if (line != std::string::npos) listing[line] = 'S';
  return listing;
}

void write_exchange_seeds() {
  const std::string listing = record_answer(MSG_LISTING_REQ, "");
  const std::string difference = differing(listing);
  write_seed("listing", listing);
  write_seed("listing", difference);
  std::string as_responder = "\1" + from_peer(MSG_LOCK_REQ, "") + from_peer(MSG_LISTING_REQ, "");
  std::string as_requester =
      std::string{1, kResync} + kOwnBack + from_peer(MSG_LISTING_ACK, difference);
  for (const std::string& request : record_requests(difference)) {
    if (request.size() > kChunkSize) continue;
    const std::string answer = record_answer(MSG_UPDATE_REQ, request);
    write_seed("update", request);
    if (answer.size() <= kChunkSize) write_seed("update", answer);
    as_responder += from_peer(MSG_UPDATE_REQ, request) + kOwnBack;
    as_requester += kOwnBack + from_peer(MSG_UPDATE_ACK, answer.substr(0, kChunkSize - 1));
  }
  write_seed("group", as_responder + from_peer(MSG_LOCK_REL, ""));
  write_seed("group", as_requester + kOwnBack + kOwnBack);
  for (char flags : {'\x0f', '\x0b', '\x07', '\x21', '\x2b'})
    write_seed("group", std::string{1, kMembership, flags} + kOwnBack + kOwnBack +
                            from_peer(MSG_LOCK_REL, ""));
  for (char which = 0; which < 5; ++which)
    write_seed("group", std::string{1, kRequest, which} + kOwnBack + kOwnBack +
                            from_peer(MSG_LISTING_ACK, listing));
}

void write_digest_seeds() {
  start_run(true);
  std::ifstream file(root_paths[kThisEmRoot] + std::string(".$SyncDigest$large"));
  const std::string text((std::istreambuf_iterator<char>(file)), {});
  write_seed("digest", '\1' + text);
  write_seed("digest", '\3' + text.substr(text.find('\n') + 1));
  write_seed("digest", '\2' + std::string(40, '0') + " 00000000 0000000a\n");
}

void write_rpc_seeds() {
  const std::string zero(1, '\0');
  const std::string root = root_paths[kThisEmRoot];
  for (const std::string& message :
       {zero + zero, zero + root + "small" + zero, root + "small" + zero + root + "dir/new" + zero,
        root + "dir/deep" + zero + root_paths[kActivePersistentRoot] + "moved" + zero,
        root + zero + root_paths[kOtherEmRoot] + "moved" + zero,
        root + "link/file" + zero + root_paths[kActiveVolatileRoot] + "link/new" + zero})
    for (char mode : {'\0', '\2', '\3'})
      write_seed("rpc", mode + message);
}

void write_command_seeds() {
  for (const char* command :
       {"exit", "cpg-send-fail\ncpg-send-nofail", "statemachine-stuck\nstatemachine-notstuck",
        "log-size=900", "fail-read=/mnt/part.persistent/replicated_by_this_em/small", "fail-scan=x",
        "fail-write=x\nfail-rename=x\nfail-none", "flight-rec=dump\nflight-rec=3", "flight-rec",
        "flight-rec=pause\nflight-rec=resume", "stats=dump\nstats=reset"})
    write_seed("diagnostic", command);
  const std::string type = {1, 0, 0, 0};
  write_seed("command", block(type + "stats=dump") + '\0' + block(type) + '\1' + block("") + '\0');
  write_seed("command", block(type + std::string(600, 'x')) + '\xff');
}

}  // namespace

void write_seeds(const std::string& directory) {
  g_directory = directory;
  write_exchange_seeds();
  write_digest_seeds();
  write_rpc_seeds();
  write_command_seeds();
}
