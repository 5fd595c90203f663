#ifndef TRANSFER_UPDATE_MESSAGE_H_
#define TRANSFER_UPDATE_MESSAGE_H_

#include <stddef.h>
#include <stdint.h>

// Payload of MSG_UPDATE_REQ and MSG_UPDATE_ACK: this header, the relative path with its NUL, and
// for PULL_ACK and PUSH_REQ the chunk. Wire format, little-endian.
struct UpdateHeader {
  uint32_t update_type;  // UpdateType
  uint8_t marker;        // always 1, not interpreted
  uint8_t data_ok;       // 0: the sender could not read the file; ignore the data
  uint8_t padding1[2];
  uint32_t root_index;  // in the sender's numbering
  uint8_t restricted;   // the copy has mode 0600 instead of 0644
  uint8_t padding2[3];
  uint32_t reserved;
  uint32_t file_size;   // bytes of the whole file
  uint32_t begin_offs;  // of the chunk
  uint32_t end_offs;    // one past its last byte
};
static_assert(sizeof(UpdateHeader) == 32);
static_assert(offsetof(UpdateHeader, update_type) == 0 && offsetof(UpdateHeader, marker) == 4);
static_assert(offsetof(UpdateHeader, data_ok) == 5 && offsetof(UpdateHeader, root_index) == 8);
static_assert(offsetof(UpdateHeader, restricted) == 12 && offsetof(UpdateHeader, reserved) == 16);
static_assert(offsetof(UpdateHeader, file_size) == 20 && offsetof(UpdateHeader, begin_offs) == 24);
static_assert(offsetof(UpdateHeader, end_offs) == 28);

#endif  // TRANSFER_UPDATE_MESSAGE_H_
