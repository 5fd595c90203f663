#ifndef EXCHANGE_DIFFERENCE_REPORT_H_
#define EXCHANGE_DIFFERENCE_REPORT_H_

#include <stdint.h>

#include "redundancy_health/frame/sync_context.h"

// Answers a local request for a comparison. Scans this EM's trees and compares them with the peer's
// listing (any bytes), changing neither. The differences go to an unlinked file, whose descriptor
// is stored in rpc_report. Failures are recorded in cpg_result or have ended the exchange; the
// caller's next checkpoint sees them. On sync_thread.
//
// The file is a series of texts, each with its NUL. The first four are counts of files, "=tree here
// there only-here only-there different". The trees are "active", "volatile", "own" (this EM's tree
// and its copy there) and "copy" (the peer's tree and its copy here). Then follows one text for
// each file that differs: "<tree/path" (only here), ">tree/path" (only there) or "!tree/path".
void report_differences(SyncContext* ctx, const uint8_t* payload, uint32_t payload_size);

#endif  // EXCHANGE_DIFFERENCE_REPORT_H_
