#include "tools/answer.h"

#include <errno.h>
#include <stddef.h>
#include <stdio.h>

#include "platform/storage.h"
#include "tools/output.h"

// The library returns the daemon's record unchanged.
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

// Texts for each Wish, in the order of the enumeration.
struct Phrases {
  const char* both;
  const char* here;
  const char* failed_there;
  const char* failed;
};
constexpr Phrases kPhrases[] = {
    {"published on both EMs", "published here; the other EM is away",
     "published here, but not on the other EM: ", "not published: "},
    {"deleted on both EMs", "deleted here; the other EM is away",
     "deleted here, but not on the other EM: ", "not deleted: "},
    {"synchronised with the other EM", "nothing was exchanged; the other EM is away",
     "not synchronised: ", "not synchronised: "},
};

// The value of "published" in JSON.
const char* published(int error, const cluster_sync_result& result) {
  if (error == EINPROGRESS || error == ECONNRESET || error == EPROTO) return "unknown";
  if (error == 0) return result.peer_present == 'Y' ? "both" : "here";
  return error == ECANCELED && result.local_ok != 0 ? "here" : "no";
}

void print_json(int error, const cluster_sync_result& result) {
  printf(
      "{\"status\":0,\"success\":%s,\"local_ok\":%s,\"remote_ok\":%s,\"benign\":%s,"
      "\"canceled\":%s,\"peer_present\":%s,\"reason\":%s,\"published\":\"%s\",\"why\":%s}\n",
      json_bool(result.success != 0), json_bool(result.local_ok != 0),
      json_bool(result.remote_ok != 0), json_bool(result.benign != 0),
      json_bool(result.canceled != 0), json_bool(result.peer_present == 'Y'),
      json_string(result.reason).c_str(), published(error, result),
      json_reason(cluster_sync_reason(error, &result)).c_str());
}

}  // namespace

int report_answer(const Options& options, Wish wish, int error, const cluster_sync_result& result,
                  const std::string& path) {
  clear_progress();
  if (error != 0 && error != ECANCELED) {
    const std::string more = std::string(",\"published\":\"") + published(error, result) + '"';
    return report_client_error(options, error, path, more);
  }
  const Phrases& words = kPhrases[static_cast<int>(wish)];
  if (options.json) print_json(error, result);
  if (error == 0) {
    if (!options.json && !options.quiet)
      printf("%s\n", result.peer_present == 'Y' ? words.both : words.here);
    return kDone;
  }
  const char* failed = result.local_ok != 0 ? words.failed_there : words.failed;
  fprintf(stderr, "cluster_sync_ctl: %s%s\n", failed, printable(result.reason).c_str());
  return kFailed;
}
