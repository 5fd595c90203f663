// Writes the seed inputs of every target below DIRECTORY/<target>/: what the daemon itself sends in
// an exchange as requester and as responder, and what its local callers send.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "redundancy_health/exchange/state_machine.h"
#include "tests/fuzz/group_steps.h"
#include "tests/fuzz/sandbox.h"

namespace fs = std::filesystem;

namespace {

fs::path g_directory;

void write_seed(const std::string& target, const std::string& seed) {
  static int number = 0;
  fs::create_directories(g_directory / target);
  std::ofstream file(g_directory / target / std::to_string(number++), std::ios::binary);
  file << seed;
  if (!file.flush()) exit(1);
}

std::string block(const std::string& bytes) {
  const std::string length = {static_cast<char>(bytes.size()),
                              static_cast<char>(bytes.size() >> 8)};
  return length + bytes;
}

// A group step: a message from the peer with the right ids.
std::string from_peer(uint32_t command, const std::string& payload) {
  const std::string head = {static_cast<char>(kDeliverFitting), static_cast<char>(command)};
  return head + block(payload);
}

std::string own_back() {
  return {static_cast<char>(kDeliverOwn)};
}

// This EM's listing, as the responder sends it.
std::string record_listing(const std::string& request) {
  start_run(true);
  deliver(kPeerNode, MSG_LOCK_REQ, kPeerExchange, 0, nullptr, 0);
  deliver(kPeerNode, MSG_LISTING_REQ, kPeerExchange, 0, request.data(), request.size());
  return g_cpg.sent.back().payload;
}

// The update requests of an exchange against `listing`, answered as the daemon answers them.
std::vector<std::string> record_requests(const std::string& listing) {
  SyncContext* ctx = &g_context;
  start_comparison(listing.data(), listing.size());
  std::vector<std::string> requests;
  while (ctx->cur_state == ST_UPDATE) {
    requests.push_back(g_cpg.sent.back().payload);
    std::string answer = requests.back();
    answer[0] = static_cast<char>(PUSH_ACK);
    deliver(kPeerNode, MSG_UPDATE_ACK, ctx->cur_exchange_id, ctx->cur_sequence_id, answer.data(),
            answer.size());
  }
  return requests;
}

std::string record_answer(const std::string& request) {
  start_run(true);
  deliver(kPeerNode, MSG_LOCK_REQ, kPeerExchange, 0, nullptr, 0);
  deliver(kPeerNode, MSG_UPDATE_REQ, kPeerExchange, 1, request.data(), request.size());
  return g_cpg.sent.back().payload;
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
  const std::string listing = record_listing("");
  const std::string difference = differing(listing);
  write_seed("listing", listing);
  write_seed("listing", difference);
  std::string as_responder = "\1" + from_peer(MSG_LOCK_REQ, "") + from_peer(MSG_LISTING_REQ, "");
  std::string as_requester = "\1" + std::string(1, static_cast<char>(kResync)) + own_back() +
                             from_peer(MSG_LISTING_ACK, difference);
  for (const std::string& request : record_requests(difference)) {
    if (request.size() > kChunkSize) continue;
    const std::string answer = record_answer(request);
    write_seed("update", request);
    if (answer.size() <= kChunkSize) write_seed("update", answer);
    as_responder += from_peer(MSG_UPDATE_REQ, request) + own_back();
    as_requester += own_back() + from_peer(MSG_UPDATE_ACK, answer.substr(0, kChunkSize - 1));
  }
  write_seed("group", as_responder + from_peer(MSG_LOCK_REL, ""));
  write_seed("group", as_requester + own_back() + own_back());
  for (char flags : {'\x0f', '\x0b', '\x07', '\x21', '\x2b'}) {
    const std::string change = {1, static_cast<char>(kMembership), flags};
    write_seed("group", change + own_back() + own_back() + from_peer(MSG_LOCK_REL, ""));
  }
  for (char which = 0; which < 5; ++which) {
    const std::string request = {1, static_cast<char>(kRequest), which};
    write_seed("group", request + own_back() + own_back() + from_peer(MSG_LISTING_ACK, listing));
  }
}

void write_digest_seeds() {
  start_run(true);
  std::ifstream file("/mnt/part.persistent/replicated_by_this_em/.$SyncDigest$large");
  const std::string text((std::istreambuf_iterator<char>(file)), {});
  write_seed("digest", '\1' + text);
  write_seed("digest", '\3' + text.substr(text.find('\n') + 1));
  write_seed("digest", '\2' + std::string(40, '0') + " 00000000 0000000a\n");
}

void write_rpc_seeds() {
  const std::string zero(1, '\0');
  const std::string root = root_paths[kThisEmRoot];
  const std::string messages[] = {
      zero + zero,
      zero + root + "small" + zero,
      root + "small" + zero + root + "dir/new" + zero,
      root + "dir/deep" + zero + root_paths[kActivePersistentRoot] + "moved" + zero,
      root + zero + root_paths[kOtherEmRoot] + "moved" + zero,
      root + "link/file" + zero + root_paths[kActiveVolatileRoot] + "link/new" + zero};
  for (const std::string& message : messages) {
    for (char mode : {'\0', '\2', '\3'})
      write_seed("rpc", mode + message);
  }
}

void write_command_seeds() {
  const char* const commands[] = {"exit",
                                  "cpg-send-fail\ncpg-send-nofail",
                                  "statemachine-stuck\nstatemachine-notstuck",
                                  "log-size=900",
                                  "fail-read=/mnt/part.persistent/replicated_by_this_em/small",
                                  "fail-scan=x",
                                  "fail-write=x\nfail-rename=x\nfail-none",
                                  "flight-rec=dump\nflight-rec=3",
                                  "flight-rec",
                                  "flight-rec=pause\nflight-rec=resume",
                                  "stats=dump\nstats=reset"};
  for (const char* command : commands)
    write_seed("diagnostic", command);
  const std::string type = {1, 0, 0, 0};
  write_seed("command", block(type + "stats=dump") + '\0' + block(type) + '\1' + block("") + '\0');
  write_seed("command", block(type + std::string(600, 'x')) + '\xff');
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "Usage: fuzz_seeds DIRECTORY\n");
    return 2;
  }
  LLVMFuzzerInitialize(&argc, &argv);
  g_directory = argv[1];
  write_exchange_seeds();
  write_digest_seeds();
  write_rpc_seeds();
  write_command_seeds();
  return 0;
}
