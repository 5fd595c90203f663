// hostile_member SEED: joins the group of the daemons as a third process and, until SIGTERM, sends
// what no daemon would: random messages, mutated and replayed ones, messages of the protocol at any
// time, updates and renames whose paths lead out of the trees, by themselves or through the links
// that the test plants there. Prints how many messages it sent and received. Exit status 1 when the
// group cannot be joined or is lost, or when a message carries bytes from outside the trees.

#include <corosync/cpg.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/transfer/update_message.h"
#include "redundancy_health/transport/cpg_message.h"

namespace {

constexpr size_t kKept = 200;                                  // received messages to replay
constexpr int kMaxWait = 10;                                   // ms without a message
constexpr char kSecret[] = "bytes that no message may carry";  // outside the trees

std::mt19937 g_random;
std::vector<std::string> g_received;
CpgHeader g_last;  // of the last message received; its ids go into what is sent
unsigned long g_n_received;
volatile sig_atomic_t g_stop;

uint32_t below(size_t limit) {
  return static_cast<uint32_t>(g_random() % limit);
}

void require(bool done, const char* what) {
  if (done) return;
  fprintf(stderr, "%s\n", what);
  exit(1);
}

std::string random_bytes(size_t size) {
  std::string bytes(size, '\0');
  std::generate(bytes.begin(), bytes.end(), [] { return static_cast<char>(g_random()); });
  return bytes;
}

template <typename Record>
std::string bytes_of(const Record& record) {
  return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

void on_message(cpg_handle_t, const cpg_name*, uint32_t, uint32_t, void* bytes, size_t size) {
  const std::string message(static_cast<const char*>(bytes), size);
  require(message.find(kSecret) == std::string::npos, "Bytes from outside the trees");
  if (size >= sizeof g_last) memcpy(&g_last, bytes, sizeof g_last);
  g_received.resize(kKept);
  g_received[g_n_received++ % kKept] = message;
}

void on_config(cpg_handle_t, const cpg_name*, const cpg_address*, size_t, const cpg_address*,
               size_t, const cpg_address*, size_t) {}

std::string make_message(uint32_t command, const std::string& payload) {
  CpgHeader header = {kCpgMagic, command, below(8), g_last.exchange_id, g_last.sequence_id, {}};
  random_bytes(sizeof header.result)
      .copy(reinterpret_cast<char*>(&header.result), sizeof header.result);
  if (below(2) == 0) header.result.success = 1;
  return bytes_of(header) + payload;
}

std::string hostile_path() {
  static const std::string paths[] = {
      "../escaped", "/tmp/outside/file", "a/../../escaped", "..", "../../../tmp/outside/file",
      // Through links to a directory, a file, nothing and "..".
      "to_dir/escaped", "dir/to_dir/file", "to_file", "to_nothing", "to_above/escaped",
      // Names that are there, and those that no scan may meet.
      "small", "large", "dir/file", "dir", "fifo", "hostile/file", "hostile/./file", "hostile", "",
      " ", ".$SyncDigest$small", std::string(255, 'n'), "hostile/" + std::string(5000, 'p'),
      "d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/deep", "hostile/\x01\x1b[2J\xff"};
  return paths[below(std::size(paths))];
}

std::string hostile_update(uint32_t command) {
  UpdateHeader header = {};
  header.update_type = below(8);
  header.data_ok = below(8) != 0;
  header.root_index = below(5);
  header.file_size = below(200000);
  const uint32_t begins[] = {0, below(200000), 0xFFFFFFFF - below(70000)};
  header.begin_offs = begins[below(3)];
  header.end_offs = header.begin_offs + below(65540);
  const std::string nul(below(8) != 0, '\0');
  return make_message(command, bytes_of(header) + hostile_path() + nul + random_bytes(below(100)));
}

// The rename that a listing request carries.
std::string hostile_rename() {
  std::string payload;
  for (int i = 0; i < 2; ++i)
    payload += (below(5) == 0 ? "/etc/" : root_paths[below(kRootCount)]) + hostile_path() + '\0';
  return make_message(MSG_LISTING_REQ, payload);
}

// As it is, or changed.
std::string replayed(std::string message) {
  for (uint32_t change = below(6); change > 0 && !message.empty(); --change)
    message.replace(below(message.size()), below(2), random_bytes(below(2)));
  return message;
}

// A whole exchange of a peer that locks the daemons to harm them.
std::vector<std::string> hostile_exchange() {
  g_last.exchange_id = static_cast<uint32_t>(g_random());
  std::vector<std::string> messages = {make_message(MSG_LOCK_REQ, {})};
  for (uint32_t update = below(6); update > 0; --update) {
    ++g_last.sequence_id;
    messages.push_back(below(4) == 0 ? hostile_rename() : hostile_update(MSG_UPDATE_REQ));
  }
  if (below(4) != 0) messages.push_back(make_message(MSG_LOCK_REL, {}));
  return messages;
}

std::vector<std::string> next_messages() {
  if (g_last.command == MSG_UPDATE_REQ && below(8) == 0) return {hostile_update(MSG_UPDATE_ACK)};
  switch (below(g_received.empty() ? 3 : 4)) {
    case 0:
      return {make_message(below(12), random_bytes(below(200))), random_bytes(below(400))};
    case 3:
      return {replayed(g_received[below(kKept)])};
    default:
      return hostile_exchange();
  }
}

}  // namespace

int main(int argc, char** argv) {
  require(argc == 2, "Usage: hostile_member SEED");
  g_random.seed(static_cast<uint32_t>(atol(argv[1])));
  cpg_handle_t handle;
  cpg_callbacks_t callbacks = {on_message, on_config};
  const cpg_name group = {7, "em-sync"};
  require(cpg_initialize(&handle, &callbacks) == CS_OK, "No group service");
  while (cpg_join(handle, &group) == CS_ERR_TRY_AGAIN)
    poll(nullptr, 0, kMaxWait);
  pollfd readable = {-1, POLLIN, 0};
  require(cpg_fd_get(handle, &readable.fd) == CS_OK, "No descriptor of the group");
  signal(SIGTERM, [](int) { g_stop = 1; });
  unsigned long n_sent = 0;
  while (g_stop == 0) {
    poll(&readable, 1, kMaxWait);
    require(cpg_dispatch(handle, CS_DISPATCH_ALL) == CS_OK, "Lost the group");
    // Most messages go unanswered, so that exchanges get under way.
    if (below(3) != 0) continue;
    for (std::string& message : next_messages()) {
      const iovec piece = {message.data(), message.size()};
      if (cpg_mcast_joined(handle, CPG_TYPE_AGREED, &piece, 1) == CS_OK) ++n_sent;
    }
  }
  cpg_finalize(handle);
  printf("sent %lu, received %lu\n", n_sent, g_n_received);
  return 0;
}
