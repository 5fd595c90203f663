#ifndef TESTS_FUZZ_SANDBOX_H_
#define TESTS_FUZZ_SANDBOX_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "redundancy_health/catalog/file_entry.h"
#include "redundancy_health/frame/sync_context.h"
#include "tests/unit/scripted_cpg.h"

// What the fuzz targets share. LLVMFuzzerInitialize enters a private mount namespace, where only
// the directory of the program stays writable beside empty file systems on /mnt, /run and /tmp. A
// canary directory lies outside the roots, and links to it lie in every root.

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

// Starts an input: the planted trees, the daemon at its start as node 1 with the peer in the group.
void start_run(bool active);

// Ends it: aborts when anything outside the roots changed or bytes of the canary were sent.
void end_run();

// Makes the trees be planted anew for the next input, whatever they look like.
void replant();

constexpr uint32_t kOwnNode = 1;
constexpr uint32_t kPeerNode = 2;
constexpr uint32_t kPeerExchange = 7;

// A delivery to the daemon, in a buffer of its exact size.
void deliver(uint32_t nodeid, const std::vector<uint8_t>& message);
void deliver(uint32_t nodeid, uint32_t command, uint32_t exchange_id, uint32_t sequence_id,
             const void* payload, size_t size);

// Starts an input whose exchange, the daemon's own, has just received this listing of the peer.
void start_comparison(const void* listing, size_t size);

// Publishes a local request for the sync side. `message` stays the caller's until take_result.
void post_request(const std::vector<uint8_t>& message);
// What a waiting caller does when its request is complete: true when there was a result.
bool take_result();

// Takes an input apart; an exhausted one gives zeros.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool empty() const {
    return size_ == 0;
  }
  uint8_t u8();
  std::vector<uint8_t> bytes(size_t count);  // fewer at the end
  std::vector<uint8_t> rest() {
    return bytes(size_);
  }
  std::vector<uint8_t> block();  // a 16-bit length, then as many bytes

 private:
  const uint8_t* data_;
  size_t size_;
};

#endif  // TESTS_FUZZ_SANDBOX_H_
