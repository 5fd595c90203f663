#ifndef PLATFORM_ESCAPE_H_
#define PLATFORM_ESCAPE_H_

#include <stddef.h>

#include <string>
#include <string_view>

// The text with every byte that could do more than be read as "\x" and two hexadecimal digits:
// control bytes, C1 controls and what is not UTF-8. A file name may hold any byte; such a byte
// would break a log line in two or drive the terminal.
std::string escape_control_bytes(std::string_view text);

// Whether escape_control_bytes may change the text. Quick: most texts are printable ASCII.
bool may_need_escapes(std::string_view text);

// Length of the well-formed UTF-8 sequence at the start of `text`, which is not empty; 0 when there
// is none.
size_t utf8_length(std::string_view text);

#endif  // PLATFORM_ESCAPE_H_
