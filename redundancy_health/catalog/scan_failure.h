#ifndef CATALOG_SCAN_FAILURE_H_
#define CATALOG_SCAN_FAILURE_H_

#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/result_codes.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/frame/sync_context.h"

// Logs a failure of the scan and makes it the outcome of the exchange. The scan continues; the
// exchange stops at its next checkpoint. A later failure replaces an earlier one.
#define RECORD_SCAN_FAILURE(ctx, dump, ...)                                \
  do {                                                                     \
    char* _failure = nullptr;                                              \
    CHECK_NOT_NEGATIVE(asprintf(&_failure, __VA_ARGS__));                  \
    LOG_AS(__func__, 3, dump, "%s", _failure);                             \
    note_failure(_failure);                                                \
    RpcResult _result;                                                     \
    storage_cfg_set_result(&_result, RESULT_APPLY_FAILED, "%s", _failure); \
    (ctx)->cpg_result = _result;                                           \
    free(_failure);                                                        \
  } while (0)

#endif  // CATALOG_SCAN_FAILURE_H_
