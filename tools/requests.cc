#include <errno.h>
#include <stddef.h>
#include <stdio.h>

#include "client/cluster_sync.h"
#include "platform/storage.h"
#include "tools/commands.h"
#include "tools/diagnostic.h"
#include "tools/output.h"

// What the daemon sends is what the library hands out.
static_assert(sizeof(cluster_sync_result) == sizeof(RpcResult));
#define SAME_PLACE(field) \
  static_assert(offsetof(cluster_sync_result, field) == offsetof(RpcResult, field))
SAME_PLACE(success);
SAME_PLACE(local_ok);
SAME_PLACE(remote_ok);
SAME_PLACE(benign);
SAME_PLACE(canceled);
SAME_PLACE(peer_present);
SAME_PLACE(reason);

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

void print_result(const Options& options, const cluster_sync_result& result) {
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

// Shows the answer, or why there is none. `error` is the client library's, `path` what was asked
// for.
int report(const Options& options, int error, const cluster_sync_result& result,
           const std::string& path) {
  if (error != 0 && error != ECANCELED) return report_client_error(options, error, path);
  print_result(options, result);
  return error == 0 ? kDone : kFailed;
}

}  // namespace

int request_update(const Options& options, const Words& words) {
  cluster_sync_result result;
  const int error = cluster_sync_update(options.socket.c_str(), words[0].c_str(), words[1].c_str(),
                                        options.timeout_ms, &result);
  return report(options, error, result, words[1]);
}

int request_deletion(const Options& options, const Words& words) {
  cluster_sync_result result;
  const int error =
      cluster_sync_delete(options.socket.c_str(), words[0].c_str(), options.timeout_ms, &result);
  return report(options, error, result, words[0]);
}

int request_sync(const Options& options, const Words& /*words*/) {
  cluster_sync_result result;
  const int error = cluster_sync_sync(options.socket.c_str(), options.timeout_ms, &result);
  return report(options, error, result, "");
}

int send_diagnostic(const Options& options, const Words& words) {
  const DiagnosticAnswer answer = ask_diagnostic(options, words[0]);
  if (answer.error != 0 && answer.error != ECANCELED)
    return report_client_error(options, answer.error, "");
  print_status(options, answer.status);
  return answer.error == 0 ? kDone : kFailed;
}
