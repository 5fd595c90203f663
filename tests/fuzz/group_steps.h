#ifndef TESTS_FUZZ_GROUP_STEPS_H_
#define TESTS_FUZZ_GROUP_STEPS_H_

#include <stdint.h>

// The steps of an input of fuzz_group, after a first byte whose bit 0 is the role. A block is a
// 16-bit length and as many bytes.
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

#endif  // TESTS_FUZZ_GROUP_STEPS_H_
