#ifndef PLATFORM_ESCAPE_H_
#define PLATFORM_ESCAPE_H_

#include <string>
#include <string_view>

// The text with every control byte as "\x" and two hexadecimal digits. A file name may hold any
// byte; such a byte would break a log line in two or drive the terminal.
std::string escape_control_bytes(std::string_view text);

#endif  // PLATFORM_ESCAPE_H_
