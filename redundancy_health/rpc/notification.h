#ifndef RPC_NOTIFICATION_H_
#define RPC_NOTIFICATION_H_

#include <stdint.h>

#include "platform/cmdsockserver.h"

// Handler of the command server: message type 0 is an RPC update, answered with the 128 bytes of
// an RpcResult; 1 is a diagnostic command; 3 compares the trees of both EMs and is answered with an
// RpcResult and, when both could be compared, a descriptor of the differences. Returns 0 when the
// message was handled, 6 when it is none. Any number of calls at once, on the server's threads.
uint32_t on_rpc_notification(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp);

#endif  // RPC_NOTIFICATION_H_
