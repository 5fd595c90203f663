#ifndef PLATFORM_ESCAPE_H_
#define PLATFORM_ESCAPE_H_

#include <stddef.h>

#include <string>
#include <string_view>

// Replaces control bytes, C1 controls and bytes that are not UTF-8 by "\x" and two hexadecimal
// digits. A file name may hold any byte, and these could break a log line or control a terminal.
std::string escape_control_bytes(std::string_view text);

// Whether escape_control_bytes may change the text. Fast, because most texts are printable ASCII.
bool may_need_escapes(std::string_view text);

// Length of the well-formed UTF-8 sequence at the start of `text`, which is not empty. 0 if there
// is none.
size_t utf8_length(std::string_view text);

#endif  // PLATFORM_ESCAPE_H_
