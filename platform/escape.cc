#include "platform/escape.h"

#include <stdio.h>

namespace {

// What a terminal shows and does not obey: U+0080 to U+009F are controls, too.
bool is_plain(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (character.size() == 1) return first >= 0x20 && first != 0x7F;
  return first != 0xC2 || static_cast<unsigned char>(character[1]) >= 0xA0;
}

}  // namespace

std::string escape_control_bytes(std::string_view text) {
  std::string escaped;
  while (!text.empty()) {
    const size_t length = utf8_length(text.data(), text.size());
    if (length != 0 && is_plain(text.substr(0, length))) {
      escaped += text.substr(0, length);
      text.remove_prefix(length);
      continue;
    }
    char code[5];
    snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(text[0]));
    escaped += code;
    text.remove_prefix(1);
  }
  return escaped;
}

size_t utf8_length(const char* bytes, size_t size) {
  const auto* text = reinterpret_cast<const unsigned char*>(bytes);
  const unsigned char lead = text[0];
  if (lead < 0x80) return 1;
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || length > size) return 0;
  // The first two bytes tell overlong forms, surrogates and numbers beyond Unicode.
  const unsigned char second = text[1];
  if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
      (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F))
    return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((text[i] & 0xC0) != 0x80) return 0;
  }
  return length;
}
