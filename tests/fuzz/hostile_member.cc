// hostile_member SECONDS SEED: joins the group of the daemons as a third process and, for SECONDS
// or until SIGTERM, sends what no daemon would: random messages, mutated and replayed ones,
// messages of the protocol at any time, updates and renames whose paths lead out of the trees, by
// themselves or through the links that the test plants there. Prints how many messages it sent and
// received. Exit status 1 when the group cannot be joined or is lost, or when a message carries
// bytes from outside the trees.

#include <corosync/cpg.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "redundancy_health/transfer/update_message.h"
#include "redundancy_health/transport/cpg_message.h"

namespace {

constexpr size_t kKept = 200;           // received messages to replay
constexpr size_t kMaxKept = 70 * 1024;  // longer ones are cut
constexpr int kMaxWait = 10;            // ms without a message
constexpr std::string_view kSecret = "bytes that no message may carry";  // outside the trees

using Bytes = std::vector<uint8_t>;

std::mt19937 g_random;
std::vector<Bytes> g_received;
uint32_t g_exchange_id;  // of the last message received
uint32_t g_sequence_id;
uint32_t g_command;
unsigned long g_n_received;
volatile sig_atomic_t g_stop;

uint32_t below(size_t limit) {
  return static_cast<uint32_t>(g_random() % limit);
}

Bytes random_bytes(size_t size) {
  Bytes bytes(size);
  std::generate(bytes.begin(), bytes.end(), [] { return static_cast<uint8_t>(g_random()); });
  return bytes;
}

void on_message(cpg_handle_t, const struct cpg_name*, uint32_t, uint32_t, void* message,
                size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(message);
  ++g_n_received;
  if (std::string_view(static_cast<const char*>(message), size).find(kSecret) !=
      std::string_view::npos) {
    fprintf(stderr, "A message carries bytes from outside the trees\n");
    exit(1);
  }
  CpgHeader header;
  if (size >= sizeof header) {
    memcpy(&header, bytes, sizeof header);
    g_exchange_id = header.exchange_id;
    g_sequence_id = header.sequence_id;
    g_command = header.command;
  }
  Bytes copy(bytes, bytes + std::min(size, kMaxKept));
  if (g_received.size() < kKept) {
    g_received.push_back(std::move(copy));
  } else {
    g_received[below(kKept)] = std::move(copy);
  }
}

void on_config(cpg_handle_t, const struct cpg_name*, const struct cpg_address*, size_t,
               const struct cpg_address*, size_t, const struct cpg_address*, size_t) {}

// A message with the ids of the exchange that was heard last.
Bytes make_message(uint32_t command, const Bytes& payload) {
  CpgHeader header = {};
  const Bytes result = random_bytes(sizeof header.result);
  memcpy(&header.result, result.data(), result.size());
  header.magic = kCpgMagic;
  header.command = command;
  header.flags = below(8);
  header.exchange_id = g_exchange_id;
  header.sequence_id = g_sequence_id;
  if (below(2) == 0) header.result.success = 1;
  Bytes message(sizeof header);
  memcpy(message.data(), &header, sizeof header);
  message.insert(message.end(), payload.begin(), payload.end());
  return message;
}

std::string hostile_path() {
  static const std::string paths[] = {
      "../escaped", "/tmp/escaped", "/tmp/outside/file", "a/../../escaped", "..",
      "../../../tmp/outside/file", "dir/../../replicated_by_this_em/../escaped",
      // Through links to a directory, a file, nothing and "..".
      "to_dir/escaped", "to_dir/file", "to_dir/dir/file", "dir/to_dir/file", "to_file",
      "to_nothing", "to_above/escaped", "to_above/replicated_by_this_em/small",
      // Names that are there, and those that no scan may meet.
      "small", "large", "dir/file", "dir", "fifo", "hostile/file", "hostile/./file", "hostile", "",
      ".", " ", "hostile/.$SyncDigest$file", ".$SyncDigest$small", std::string(250, 'm'),
      std::string(255, 'n'), "hostile/" + std::string(5000, 'p'),
      "d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/deep", "hostile/\x01\x1b[2J\xff"};
  return paths[below(std::size(paths))];
}

Bytes hostile_update(uint32_t command) {
  UpdateHeader header = {};
  header.update_type = below(8);
  header.marker = 1;
  header.data_ok = static_cast<uint8_t>(below(2));
  header.root_index = below(5);
  header.file_size = below(2) == 0 ? below(100) : below(200000);
  header.begin_offs = below(2) == 0 ? 0 : below(200000);
  if (below(16) == 0) header.begin_offs = 0xFFFFFFFF - below(70000);
  header.end_offs = header.begin_offs + below(65540);
  const std::string path = hostile_path();
  Bytes payload(sizeof header);
  memcpy(payload.data(), &header, sizeof header);
  payload.insert(payload.end(), path.c_str(), path.c_str() + path.size() + (below(8) != 0));
  const Bytes data = random_bytes(below(100));
  payload.insert(payload.end(), data.begin(), data.end());
  return make_message(command, payload);
}

// The rename that a listing request carries.
Bytes hostile_rename() {
  static const std::string roots[] = {"/mnt/part.persistent/replicated_by_active_em/",
                                      "/mnt/part.persistent/replicated_by_this_em/",
                                      "/mnt/part.persistent/replicated_by_other_em/",
                                      "/var/run/replicated_by_active_em/", "/etc/"};
  const std::string text =
      roots[below(5)] + hostile_path() + '\0' + roots[below(5)] + hostile_path() + '\0';
  return make_message(MSG_LISTING_REQ, Bytes(text.begin(), text.end()));
}

Bytes hostile_listing() {
  std::string text;
  for (uint32_t line = below(20); line > 0; --line)
    text += std::string(1, "APQVB"[below(5)]) + " x 0 " + "1f"[below(2)] + " G " + hostile_path() +
            '\0';
  return make_message(MSG_LISTING_ACK, Bytes(text.begin(), text.end()));
}

Bytes mutated(Bytes message) {
  for (uint32_t change = below(6); change > 0 && !message.empty(); --change) {
    const size_t at = below(message.size());
    switch (below(4)) {
      case 0:
        message[at] ^= static_cast<uint8_t>(1 << below(8));
        break;
      case 1:
        message[at] = static_cast<uint8_t>(g_random());
        break;
      case 2:
        message.resize(at);
        break;
      default:
        message.insert(message.begin() + static_cast<ptrdiff_t>(at), 1 + below(9), 0);
        break;
    }
  }
  return message;
}

// A whole exchange of a peer that locks the daemons to harm them.
std::vector<Bytes> hostile_exchange() {
  g_exchange_id = static_cast<uint32_t>(g_random());
  std::vector<Bytes> messages = {make_message(MSG_LOCK_REQ, {})};
  for (uint32_t update = below(6); update > 0; --update) {
    ++g_sequence_id;
    messages.push_back(below(4) == 0 ? hostile_rename() : hostile_update(MSG_UPDATE_REQ));
  }
  if (below(4) != 0) messages.push_back(make_message(MSG_LOCK_REL, {}));
  return messages;
}

std::vector<Bytes> next_messages() {
  if (g_command == MSG_LISTING_REQ && below(2) == 0) return {hostile_listing()};
  if (g_command == MSG_UPDATE_REQ && below(8) == 0) return {hostile_update(MSG_UPDATE_ACK)};
  switch (below(g_received.empty() ? 3 : 6)) {
    case 0:
      return {random_bytes(below(400))};
    case 1:
      return {make_message(below(12), random_bytes(below(200)))};
    case 2:
    case 3:
      return hostile_exchange();
    case 4:
      return {g_received[below(g_received.size())]};
    default:
      return {mutated(g_received[below(g_received.size())])};
  }
}

bool join(cpg_handle_t* handle, int* fd) {
  cpg_model_v1_data_t model = {};
  model.model = CPG_MODEL_V1;
  model.cpg_deliver_fn = on_message;
  model.cpg_confchg_fn = on_config;
  const cpg_name group = {7, "em-sync"};
  if (cpg_model_initialize(handle, CPG_MODEL_V1, reinterpret_cast<cpg_model_data_t*>(&model),
                           nullptr) != CS_OK)
    return false;
  cs_error_t rc;
  while ((rc = cpg_join(*handle, &group)) == CS_ERR_TRY_AGAIN)
    poll(nullptr, 0, 10);
  return rc == CS_OK && cpg_fd_get(*handle, fd) == CS_OK;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "Usage: hostile_member SECONDS SEED\n");
    return 2;
  }
  const time_t end = time(nullptr) + strtol(argv[1], nullptr, 10);
  g_random.seed(static_cast<uint32_t>(strtoul(argv[2], nullptr, 10)));
  cpg_handle_t handle;
  int fd;
  if (!join(&handle, &fd)) {
    fprintf(stderr, "Could not join the group\n");
    return 1;
  }
  signal(SIGTERM, [](int) { g_stop = 1; });
  unsigned long n_sent = 0;
  while (g_stop == 0 && time(nullptr) < end) {
    pollfd readable = {fd, POLLIN, 0};
    poll(&readable, 1, kMaxWait);
    if (cpg_dispatch(handle, CS_DISPATCH_ALL) != CS_OK) {
      fprintf(stderr, "Lost the group\n");
      return 1;
    }
    // Most messages go unanswered, so that exchanges get under way.
    if (g_command != MSG_LISTING_REQ && below(3) != 0) continue;
    for (Bytes& message : next_messages()) {
      const iovec piece = {message.data(), message.size()};
      if (cpg_mcast_joined(handle, CPG_TYPE_AGREED, &piece, 1) == CS_OK) ++n_sent;
    }
  }
  cpg_finalize(handle);
  printf("sent %lu, received %lu\n", n_sent, g_n_received);
  return 0;
}
