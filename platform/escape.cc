#include "platform/escape.h"

#include <stdio.h>

std::string escape_control_bytes(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    char code[5] = {c, '\0'};
    if (byte < 0x20 || byte == 0x7F) snprintf(code, sizeof code, "\\x%02x", byte);
    escaped += code;
  }
  return escaped;
}
