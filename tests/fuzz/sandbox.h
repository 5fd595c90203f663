#ifndef TESTS_FUZZ_SANDBOX_H_
#define TESTS_FUZZ_SANDBOX_H_

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "redundancy_health/frame/sync_context.h"
#include "tests/unit/scripted_cpg.h"

// What the fuzz targets and their seeds share: a private mount namespace, where only the directory
// of the program stays writable beside empty file systems on /mnt, /run and /tmp. A canary
// directory lies outside the roots, and links to it lie in every root.
void enter_sandbox();

// Starts an input: the planted trees, the daemon at its start as node 1 with the peer in the group.
void start_run(bool active);
// Ends it: aborts when anything outside the roots changed or bytes of the canary were sent.
void end_run();

constexpr uint32_t kOwnNode = 1;
constexpr uint32_t kPeerNode = 2;
constexpr uint32_t kPeerExchange = 7;

template <typename Record>
std::string bytes_of(const Record& record) {
  return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

// A delivery to the daemon, in a buffer of its exact size.
void deliver(uint32_t nodeid, const std::string& message);
void deliver(uint32_t nodeid, uint32_t command, uint32_t exchange_id, uint32_t sequence_id = 0,
             const std::string& payload = {});
// From the peer as requester, once its lock is held.
void lock_by_peer();
void deliver_request(uint32_t command, const std::string& payload);
// Starts an exchange of the daemon's own; starts an input whose exchange, the daemon's own, has
// just received this listing of the peer.
void start_exchange();
void start_comparison(const std::string& listing);
// Answers the update request sent last as a peer that did what it was asked.
void accept_update();
// Publishes a local request for the sync side.
void post_request(const std::string& message);

// The steps of an input of the target "group", after a first byte whose bit 0 is the role. A block
// is a 16-bit length and as many bytes.
enum GroupStep : uint8_t {
  kDeliverOwn,      // the next own message comes back
  kDeliverFitting,  // from the peer, with the right ids: command, payload block
  kDeliverAny,      // sender, whole message as a block, whether its magic is mended
  kMembership,      // the flags of a configuration change
  kRequest,         // which of the local requests
  kResync,
  kTimeout,
  kFailSend,  // the next send fails
  kGroupSteps,
};

// Writes the seed inputs of every target below `directory`, each in its directory: what the daemon
// itself sends in an exchange as requester and as responder, and what its local callers send.
void write_seeds(const std::string& directory);

#endif  // TESTS_FUZZ_SANDBOX_H_
