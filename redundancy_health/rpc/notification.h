#ifndef RPC_NOTIFICATION_H_
#define RPC_NOTIFICATION_H_

#include <stdint.h>

#include "platform/cmdsockserver.h"

// Handler of the command server. Message type 0 is an RPC update, answered with the 128 bytes of an
// RpcResult; 1 is a diagnostic command; 2 is a state query, answered with a StateRecord; 3 compares
// the trees of both EMs, answered with an RpcResult and, if they could be compared, a descriptor of
// the differences. Returns 0 if the message was handled, 6 if it is invalid. On the server's
// threads, any number at once.
uint32_t on_rpc_notification(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp);

#endif  // RPC_NOTIFICATION_H_
