#ifndef TOOLS_ANSWER_H_
#define TOOLS_ANSWER_H_

#include <string>

#include "tools/commands.h"

// The kind of a request.
enum class Wish { kPublish, kDelete, kSync };

// Prints the result of a request in one line. `error` is the client library's; `path` is the
// destination, or empty. Returns the exit status.
int report_answer(const Options& options, Wish wish, int error, const cluster_sync_result& result,
                  const std::string& path);

#endif  // TOOLS_ANSWER_H_
