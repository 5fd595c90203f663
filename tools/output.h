#ifndef TOOLS_OUTPUT_H_
#define TOOLS_OUTPUT_H_

#include <string>

#include "tools/commands.h"

// The text as a JSON string. A byte that is not part of well-formed UTF-8 becomes U+FFFD.
std::string json_string(const std::string& text);

// The text with control bytes escaped, so that a file name cannot control the terminal.
std::string printable(const std::string& text);

const char* json_bool(bool value);

// A reason of the client library as a JSON string; null for none.
std::string json_reason(cluster_sync_reason_code reason);

// Reports an error on standard error and, with --json, as JSON. `more` are further JSON members,
// each preceded by a comma. Returns `status`.
int report_error(const Options& options, const std::string& text, ExitStatus status = kNoAnswer,
                 const std::string& more = "");

// The same for an error number of the client library. `path` is the destination, or empty. The
// status is kNoAnswer if the daemon does not answer, kFailed if the request is impossible. `more`
// as above.
int report_client_error(const Options& options, int error, const std::string& path,
                        const std::string& more = "");
std::string client_error_text(const Options& options, int error);

// Reports an error in the command line. Returns kUsage.
int usage_error(const std::string& text);

// Shows the progress of a long command if standard error is a terminal. Each text replaces the
// previous one, at most a few times a second.
void show_progress(const std::string& text);
void clear_progress();

#endif  // TOOLS_OUTPUT_H_
