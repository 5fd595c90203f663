#ifndef TOOLS_OUTPUT_H_
#define TOOLS_OUTPUT_H_

#include <string>

#include "tools/commands.h"

// The text as a JSON string. A byte that is no part of well-formed UTF-8 becomes U+FFFD.
std::string json_string(const std::string& text);

// The text with control bytes made visible, so that a file name cannot drive the terminal.
std::string printable(const std::string& text);

const char* json_bool(bool value);

// A reason of the client library as a word in JSON, null for none.
std::string json_reason(cluster_sync_reason_code reason);

// Tells why there is no answer, on standard error and in JSON, there with the members `more`, each
// behind a comma. Returns `status`.
int report_error(const Options& options, const std::string& text, ExitStatus status = kNoAnswer,
                 const std::string& more = "");

// The same for an error number of the client library; `path` is what was asked for, or empty. The
// status is kNoAnswer when it is the daemon that is missing, kFailed when the request is
// impossible.
// `more` are further members for JSON, each behind a comma.
int report_client_error(const Options& options, int error, const std::string& path,
                        const std::string& more = "");
std::string client_error_text(const Options& options, int error);

// Says what is wrong with the command line. Returns kUsage.
int usage_error(const std::string& text);

// Shows how far a long command is, when standard error is a terminal. Each text replaces the one
// before, no more than a few times a second.
void show_progress(const std::string& text);
void clear_progress();

#endif  // TOOLS_OUTPUT_H_
