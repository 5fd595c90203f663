#include <endian.h>
#include <stdio.h>
#include <string.h>

#include "platform/storage.h"
#include "tools/ask_daemon.h"
#include "tools/commands.h"
#include "tools/output.h"

namespace {

const char* yes_or_no(bool value) {
  return value ? "yes" : "no";
}

void print_status(const Options& options, uint32_t status) {
  if (options.json)
    printf("{\"status\":%u}\n", status);
  else if (status == 0)
    printf("done\n");
  else
    printf("refused with status %u\n", status);
}

void print_result(const Options& options, const RpcResult& result) {
  const bool peer_present = result.peer_present == 'Y';
  if (options.json) {
    printf(
        "{\"status\":0,\"success\":%s,\"local_ok\":%s,\"remote_ok\":%s,\"benign\":%s,"
        "\"canceled\":%s,\"peer_present\":%s,\"reason\":%s}\n",
        json_bool(result.success != 0), json_bool(result.local_ok != 0),
        json_bool(result.remote_ok != 0), json_bool(result.benign != 0),
        json_bool(result.canceled != 0), json_bool(peer_present),
        json_string(result.reason).c_str());
    return;
  }
  printf("success:      %s\nlocal_ok:     %s\nremote_ok:    %s\npeer_present: %s\n",
         yes_or_no(result.success != 0), yes_or_no(result.local_ok != 0),
         yes_or_no(result.remote_ok != 0), yes_or_no(peer_present));
  if (result.reason[0] != '\0') printf("reason:       %s\n", printable(result.reason).c_str());
}

// Takes the record out of the payload. False when it is none.
bool read_result(const std::vector<uint8_t>& payload, RpcResult* result) {
  if (payload.size() != sizeof *result) return false;
  memcpy(result, payload.data(), sizeof *result);
  result->peer_present = le32toh(result->peer_present);
  return memchr(result->reason, '\0', sizeof result->reason) != nullptr &&
         (result->peer_present == 'Y' || result->peer_present == 'N');
}

}  // namespace

int request_update(const Options& options, const std::string& source,
                   const std::string& destination) {
  const std::string message = source + '\0' + destination + '\0';
  const Answer answer = ask_daemon(options, kRpcUpdate, message);
  if (!answer.error.empty()) return report_error(options, answer.error);
  if (answer.status != 0) {
    print_status(options, answer.status);
    return kFailed;
  }
  RpcResult result;
  if (!read_result(answer.payload, &result))
    return report_error(options, "the daemon's answer cannot be understood");
  print_result(options, result);
  return result.success != 0 ? kDone : kFailed;
}

int send_diagnostic(const Options& options, const std::string& command) {
  const Answer answer = ask_daemon(options, kDiagnostic, command);
  if (!answer.error.empty()) return report_error(options, answer.error);
  print_status(options, answer.status);
  return answer.status == 0 ? kDone : kFailed;
}
