#include "platform/escape.h"

#include <stdio.h>

#include <algorithm>

namespace {

unsigned char byte_at(std::string_view text, size_t position) {
  return static_cast<unsigned char>(text[position]);
}

// Number of bytes of the printable character at the start of `text`; 0 if there is none.
size_t printable_length(std::string_view text) {
  const unsigned char first = byte_at(text, 0);
  if (first < 0x20 || first == 0x7F) return 0;
  const size_t length = utf8_length(text);
  return length == 2 && first == 0xC2 && byte_at(text, 1) < 0xA0 ? 0 : length;
}

}  // namespace

size_t utf8_length(std::string_view text) {
  const unsigned char lead = byte_at(text, 0);
  if (lead < 0x80) return 1;
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || length > text.size()) return 0;
  // The first two bytes show overlong forms, surrogates and numbers beyond Unicode.
  const unsigned char second = byte_at(text, 1);
  if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
      (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F))
    return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte_at(text, i) & 0xC0) != 0x80) return 0;
  }
  return length;
}

bool may_need_escapes(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) { return c < 0x20 || c > 0x7E; });
}

std::string escape_control_bytes(std::string_view text) {
  std::string escaped;
  while (!text.empty()) {
    const size_t length = printable_length(text);
    if (length != 0) {
      escaped += text.substr(0, length);
    } else {
      char code[5];
      snprintf(code, sizeof code, "\\x%02x", byte_at(text, 0));
      escaped += code;
    }
    text.remove_prefix(length != 0 ? length : 1);
  }
  return escaped;
}

size_t utf8_length(const char* bytes, size_t size) {
  const auto* text = reinterpret_cast<const unsigned char*>(bytes);
  const unsigned char lead = text[0];
  if (lead < 0x80) return 1;
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || length > size) return 0;
  // The first two bytes show overlong forms, surrogates and numbers beyond Unicode.
  const unsigned char second = text[1];
  if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
      (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F))
    return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((text[i] & 0xC0) != 0x80) return 0;
  }
  return length;
}
