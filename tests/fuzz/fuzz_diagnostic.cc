// Diagnostic commands, one a line, each followed by work under the settings that it left.

#include <string.h>
#include <unistd.h>

#include <memory>

#include "redundancy_health/frame/log.h"
#include "redundancy_health/rpc/diagnostics.h"
#include "tests/fuzz/sandbox.h"

namespace {

constexpr int kMaxCommands = 8;

void run(const std::string& command) {
  const auto message = std::make_unique<uint8_t[]>(command.size());  // of the exact size
  memcpy(message.get(), command.data(), command.size());
  run_diagnostic(message.get(), static_cast<uint32_t>(command.size()));
}

// "sync" waits for an exchange that nobody runs here.
bool waits(const std::string& command) {
  const std::string word = command.substr(0, command.find_first_of(std::string("=\0", 2)));
  return word == "sync";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  start_run(true);
  for (int i = 0; i < kMaxCommands && !in.empty(); ++i) {
    std::string command;
    for (uint8_t byte; !in.empty() && (byte = in.u8()) != '\n';)
      command.push_back(static_cast<char>(byte));
    if (waits(command)) continue;
    run(command);
    LOG(3, "after '%s'", command.c_str());
    deliver(kPeerNode, MSG_LOCK_REQ, kPeerExchange, 0, nullptr, 0);
    deliver(kPeerNode, MSG_LISTING_REQ, kPeerExchange, 0, nullptr, 0);
  }
  for (const char* command :
       {"fail-none", "log-size=0", "flight-rec=500", "flight-rec=resume", "stats=reset"})
    run(command);
  unlink("/tmp/cluster_sync_daemon.log");
  unlink("/tmp/cluster_sync_daemon.log.0");
  end_run();
  return 0;
}
