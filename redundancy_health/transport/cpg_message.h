#ifndef TRANSPORT_CPG_MESSAGE_H_
#define TRANSPORT_CPG_MESSAGE_H_

#include <stddef.h>
#include <stdint.h>

#include "redundancy_health/frame/sync_context.h"

// The header of every group message, and the only function that sends messages.

// Numbers for the messages on the wire and for local events of the state machine.
enum SyncCommand : uint32_t {
  MSG_LOCK_REQ = 0,
  MSG_LOCK_REL = 1,
  MSG_LISTING_REQ = 2,
  MSG_LISTING_ACK = 3,
  MSG_UPDATE_REQ = 4,
  MSG_UPDATE_ACK = 5,
  ON_SYNC_REQ = 6,  // the local events are never sent
  ON_TIMEOUT = 7,
  ON_CPG_JOINED = 8,
  ON_CPG_LEFT = 9,
};

// "MSG_LOCK_REQ" to "ON_CPG_LEFT"; "MSG_???" for larger numbers.
const char* sync_command_name(uint32_t command);

constexpr uint32_t kCpgMagic = 0x0A1FA1FA;

// Wire format, little-endian; the payload follows.
struct CpgHeader {
  uint32_t magic;
  uint32_t command;  // SyncCommand, 0 to 5
  uint32_t flags;    // FLAG_... as passed to send_cpg_command
  uint32_t exchange_id;
  uint32_t sequence_id;
  RpcResult result;
};
static_assert(sizeof(CpgHeader) == 148);
static_assert(offsetof(CpgHeader, magic) == 0 && offsetof(CpgHeader, command) == 4);
static_assert(offsetof(CpgHeader, flags) == 8 && offsetof(CpgHeader, exchange_id) == 12);
static_assert(offsetof(CpgHeader, sequence_id) == 16 && offsetof(CpgHeader, result) == 20);

constexpr uint32_t FLAG_PEER_EXCHANGE = 1;   // a reply: use the peer's ids
constexpr uint32_t FLAG_NO_END = 2;          // a failed send does not end the exchange
constexpr uint32_t FLAG_CHECK_SEQUENCE = 4;  // for check_header_ids: also check the sequence id

// Multicasts one message in agreed order (cpg_mcast_joined(3)) to the group, including the sender.
// `result` is sent in the header; null means success. The payload stays the caller's. While the
// queue of the library is full, retries for about a second. A failure is recorded in cpg_result,
// unless that already has an error, and ends the exchange unless FLAG_NO_END is set. On
// sync_thread.
void send_cpg_command(SyncContext* ctx, uint32_t command, uint32_t flags, const RpcResult* result,
                      const void* payload, uint32_t payload_size);

// Checks the ids of a received header: the exchange id against this daemon's exchange (with
// FLAG_PEER_EXCHANGE: the peer's) and, with FLAG_CHECK_SEQUENCE, the sequence id against
// cur_sequence_id. Each mismatch ends the exchange with an error; check cpg_result afterwards.
void check_header_ids(SyncContext* ctx, uint32_t exchange_id, const uint32_t* sequence_id,
                      uint32_t check_flags);

#endif  // TRANSPORT_CPG_MESSAGE_H_
