#ifndef EXCHANGE_RPC_REQUEST_H_
#define EXCHANGE_RPC_REQUEST_H_

#include <stdint.h>

// A local caller's request. Without source and destination it asks for an exchange, with only a
// destination for its deletion, with both for a rename. It is sent to the peer as the payload of
// MSG_LISTING_REQ.
struct RpcRequest {
  const char* source;  // points into the message
  const char* destination;
};

// The reason for a failed change to a shared tree on a standby EM; %s is the destination.
constexpr char kNotActiveFormat[] =
    "Attempt to update shared replicated area while not active '%s'";

// Returns false unless the message (any bytes, null for none) begins with two terminated strings.
// The rest is ignored.
bool parse_rpc_request(const uint8_t* message, uint32_t size, RpcRequest* request);

#endif  // EXCHANGE_RPC_REQUEST_H_
