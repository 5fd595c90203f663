#ifndef TRANSPORT_CPG_MESSAGE_H_
#define TRANSPORT_CPG_MESSAGE_H_

#include <stddef.h>
#include <stdint.h>

#include "redundancy_health/frame/sync_context.h"

// The envelope of every message in the group, and the one path on which messages leave.

// One numbering for the messages on the wire and for local events of the state machine.
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

// "MSG_LOCK_REQ" to "ON_CPG_LEFT", "MSG_???" above.
const char* sync_command_name(uint32_t command);

constexpr uint32_t kCpgMagic = 0x0A1FA1FA;

// Wire format, little-endian on both ends; the payload follows.
struct CpgHeader {
  uint32_t magic;
  uint32_t command;  // SyncCommand, 0 to 5
  uint32_t flags;    // of send_cpg_command
  uint32_t exchange_id;
  uint32_t sequence_id;
  RpcResult result;
};
static_assert(sizeof(CpgHeader) == 148);
static_assert(offsetof(CpgHeader, magic) == 0 && offsetof(CpgHeader, command) == 4);
static_assert(offsetof(CpgHeader, flags) == 8 && offsetof(CpgHeader, exchange_id) == 12);
static_assert(offsetof(CpgHeader, sequence_id) == 16 && offsetof(CpgHeader, result) == 20);

constexpr uint32_t FLAG_PEER_EXCHANGE = 1;   // the peer's ids: a reply
constexpr uint32_t FLAG_NO_END = 2;          // a failed send does not end the exchange
constexpr uint32_t FLAG_CHECK_SEQUENCE = 4;  // check_header_ids: the sequence id too

// Multicasts one message with agreed order (cpg_mcast_joined(3)) to the group, the sender
// included. `result` rides in the header; null means success. The payload is not copied by the
// daemon and stays the caller's. A full library queue is retried for about a second. A failure is
// recorded in cpg_result unless that already records an error, and ends the exchange unless
// FLAG_NO_END. On sync_thread.
void send_cpg_command(SyncContext* ctx, uint32_t command, uint32_t flags, const RpcResult* result,
                      const void* payload, uint32_t payload_size);

// Ends the exchange with an error for each id of a received header that is not the expected one:
// the exchange id of this daemon's exchange (FLAG_PEER_EXCHANGE: of the peer's) and, with
// FLAG_CHECK_SEQUENCE, cur_sequence_id. The caller sees it in cpg_result.
void check_header_ids(SyncContext* ctx, uint32_t exchange_id, const uint32_t* sequence_id,
                      uint32_t check_flags);

#endif  // TRANSPORT_CPG_MESSAGE_H_
