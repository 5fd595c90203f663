#ifndef PLATFORM_ESCAPE_H_
#define PLATFORM_ESCAPE_H_

#include <stddef.h>

#include <string>
#include <string_view>

// The text with every control byte, and every byte of a C1 control or of what is no UTF-8, as "\x"
// and two hexadecimal digits. A file name may hold any byte; such a byte would break a log line in
// two or drive the terminal.
std::string escape_control_bytes(std::string_view text);

// Length of the well-formed UTF-8 sequence at `text`, which has `size` bytes, at least one; 0 when
// there is none.
size_t utf8_length(const char* bytes, size_t size);

#endif  // PLATFORM_ESCAPE_H_
