#ifndef TOOLS_OUTPUT_H_
#define TOOLS_OUTPUT_H_

#include <string>

#include "tools/commands.h"

// The text as a JSON string. A byte that is no part of well-formed UTF-8 becomes U+FFFD.
std::string json_string(const std::string& text);

// The text with control bytes made visible, so that a file name cannot drive the terminal.
std::string printable(const std::string& text);

const char* json_bool(bool value);

// Tells why there is no answer, on standard error and in JSON. Returns `status`.
int report_error(const Options& options, const std::string& text, ExitStatus status = kNoAnswer);

// Shows how far a long command is, when standard error is a terminal. Each text replaces the one
// before, no more than a few times a second.
void show_progress(const std::string& text);
void clear_progress();

#endif  // TOOLS_OUTPUT_H_
