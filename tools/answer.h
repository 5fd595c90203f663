#ifndef TOOLS_ANSWER_H_
#define TOOLS_ANSWER_H_

#include <string>

#include "tools/commands.h"

// What a request was to do.
enum class Wish { kPublish, kDelete, kSync };

// Shows in one line what became of a request: `error` is the client library's, `path` what was
// asked for, or empty. Returns the exit status.
int report_answer(const Options& options, Wish wish, int error, const cluster_sync_result& result,
                  const std::string& path);

#endif  // TOOLS_ANSWER_H_
