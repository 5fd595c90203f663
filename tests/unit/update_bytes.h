#ifndef TESTS_UNIT_UPDATE_BYTES_H_
#define TESTS_UNIT_UPDATE_BYTES_H_

#include <stdint.h>

#include <string>

enum UpdateFlags { kPlain = 0, kRestricted = 1, kNoData = 2 };

inline std::string little_endian(uint32_t number) {
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8)
    bytes += static_cast<char>(number >> shift);
  return bytes;
}

// The payload of an update message, byte for byte, without the record that the daemon uses.
inline std::string update(uint32_t type, uint32_t root, const std::string& path, uint32_t begin,
                          uint32_t end, uint32_t file_size, const std::string& data = "",
                          int flags = kPlain) {
  return little_endian(type) + '\1' + ((flags & kNoData) != 0 ? '\0' : '\1') +
         std::string(2, '\0') + little_endian(root) + ((flags & kRestricted) != 0 ? '\1' : '\0') +
         std::string(7, '\0') + little_endian(file_size) + little_endian(begin) +
         little_endian(end) + path + '\0' + data;
}

#endif  // TESTS_UNIT_UPDATE_BYTES_H_
