#ifndef FRAME_RESULT_CODES_H_
#define FRAME_RESULT_CODES_H_

#include <stdint.h>

#include "platform/storage.h"

// A code makes a result record and is also the flags argument of the end of an exchange. That reads
// some of its bits: kCodeNoExchange means that there is nothing to release.
constexpr uint32_t kCodeError = 0x02 | 0x04;                 // either bit: reports an error
constexpr uint32_t kCodeUncounted = 0x02 | kCodeNoExchange;  // both bits: not a replication fault

constexpr uint32_t RESULT_OK = 0;
constexpr uint32_t RESULT_LOCAL_FAILED = 2;         // the request never reached an exchange
constexpr uint32_t RESULT_EXCHANGE_FAILED = 4;      // an error within an exchange
constexpr uint32_t RESULT_READ_FAILED = 18;         // a local file, during an exchange
constexpr uint32_t RESULT_APPLY_FAILED = 20;        // a scan, a listing or a received update
constexpr uint32_t RESULT_REFUSED = 34;             // a local request that failed here
constexpr uint32_t RESULT_REFUSED_BENIGN = 42;      // a local request that can never succeed
constexpr uint32_t RESULT_REFUSED_NOT_ACTIVE = 44;  // a local request for a shared tree on a
                                                    // standby EM

#endif  // FRAME_RESULT_CODES_H_
