#ifndef FRAME_RESULT_CODES_H_
#define FRAME_RESULT_CODES_H_

#include <stdint.h>

#include "platform/storage.h"

// The number from which a result record is made is also the flags argument of the end of an
// exchange, which reads some of its bits: with kCodeNoExchange there is nothing to release.
constexpr uint32_t kCodeError = 0x02 | 0x04;                 // either bit: an error is reported
constexpr uint32_t kCodeUncounted = 0x02 | kCodeNoExchange;  // both: not a replication fault

constexpr uint32_t RESULT_OK = 0;
constexpr uint32_t RESULT_LOCAL_FAILED = 2;         // the request never reached an exchange
constexpr uint32_t RESULT_EXCHANGE_FAILED = 4;      // an error that ends an exchange from inside
constexpr uint32_t RESULT_READ_FAILED = 18;         // a local file, while an exchange runs
constexpr uint32_t RESULT_APPLY_FAILED = 20;        // a scan, a listing or a received update
constexpr uint32_t RESULT_REFUSED = 34;             // a local request that failed here
constexpr uint32_t RESULT_REFUSED_BENIGN = 42;      // a local request that was never possible
constexpr uint32_t RESULT_REFUSED_NOT_ACTIVE = 44;  // a local request for the active EM's trees

#endif  // FRAME_RESULT_CODES_H_
