#ifndef EXCHANGE_CHECKPOINT_H_
#define EXCHANGE_CHECKPOINT_H_

#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/sync_context.h"

// The checkpoint after every step of an exchange that can fail. If the step recorded a failure in
// cpg_result, runs the statements `leave`. It does not end the exchange: the failure has done that,
// or the short timeout will. The log line has the name `function`.
#define SKIP_IF_CANCELED(ctx, function, leave)              \
  do {                                                      \
    if ((ctx)->cpg_result.canceled) {                       \
      LOG_AS(function, 4, 1, "SKIP_IF_CANCELED triggered"); \
      leave;                                                \
    }                                                       \
  } while (0)

#endif  // EXCHANGE_CHECKPOINT_H_
