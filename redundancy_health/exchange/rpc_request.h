#ifndef EXCHANGE_RPC_REQUEST_H_
#define EXCHANGE_RPC_REQUEST_H_

#include <stdint.h>

// A local caller's request, as its bytes say: no source and no destination asks for an exchange,
// only a destination for its deletion, both for a rename. It travels to the peer as the payload of
// MSG_LISTING_REQ.
struct RpcRequest {
  const char* source;  // points into the message
  const char* destination;
};

// The reason of a failed change to a tree that only the active EM may write; %s is the destination.
constexpr char kNotActiveFormat[] =
    "Attempt to update shared replicated area while not active '%s'";

// False when the message (any bytes, null for none) does not hold two terminated strings. What
// follows them is ignored.
bool parse_rpc_request(const uint8_t* message, uint32_t size, RpcRequest* request);

#endif  // EXCHANGE_RPC_REQUEST_H_
