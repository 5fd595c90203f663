#include "redundancy_health/rpc/notification.h"

#include "redundancy_health/frame/log.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/rpc/diagnostics.h"
#include "redundancy_health/rpc/rpc_service.h"

namespace {

enum MessageType : uint32_t { kRpcUpdate = 0, kDiagnostic = 1, kStateQuery = 2, kCompare = 3 };

}  // namespace

uint32_t on_rpc_notification(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp) {
  switch (type) {
    case kRpcUpdate: {
      RpcResult result;
      on_rpc_update(&result, message, size);
      cmd_rsp_attach_payload(&result, sizeof(result), rsp);
      return kHandled;
    }
    case kDiagnostic:
      return run_diagnostic(message, size);
    case kStateQuery: {
      StateRecord state;
      read_state(&state);
      cmd_rsp_attach_payload(&state, sizeof(state), rsp);
      return kHandled;
    }
    case kCompare: {
      RpcResult result;
      const int report = on_rpc_compare(&result);
      cmd_rsp_attach_payload(&result, sizeof(result), rsp);
      if (report >= 0) cmd_rsp_attach_descriptor(report, rsp);
      return kHandled;
    }
    default:
      LOG(3, "received an invalid message %d", static_cast<int>(type));
      return kInvalidMessage;
  }
}
