// The meaning of error numbers and of the daemon's texts.

#include <errno.h>
#include <stddef.h>
#include <string.h>

#include "client/cluster_sync.h"

namespace {

using Reason = cluster_sync_reason_code;

struct ErrorMeaning {
  int error;
  Reason reason;
  const char* text;  // null: use the system's text
};

// Any other number comes from a system call that failed here.
constexpr ErrorMeaning kErrors[] = {
    {0, CLUSTER_SYNC_NO_REASON, nullptr},
    {ECONNREFUSED, CLUSTER_SYNC_NO_DAEMON, "no daemon answers on the command socket"},
    {EACCES, CLUSTER_SYNC_NO_DAEMON, "only root may use the command socket"},
    {ECONNRESET, CLUSTER_SYNC_NO_DAEMON, "the daemon closed the connection without an answer"},
    {EINPROGRESS, CLUSTER_SYNC_TIMED_OUT,
     "no answer within the time limit; the daemon has the request, and its exchange goes on"},
    {ETIMEDOUT, CLUSTER_SYNC_TIMED_OUT, "no answer within the time limit; nothing was changed"},
    {EAGAIN, CLUSTER_SYNC_BUSY, "no answer yet"},
    {EBUSY, CLUSTER_SYNC_BUSY, "another request of this connection has not been answered"},
    {ENOMSG, CLUSTER_SYNC_OTHER, "no request was sent on this connection"},
    {ECANCELED, CLUSTER_SYNC_OTHER, "the daemon refuses the request or reports a failure"},
    {EHOSTDOWN, CLUSTER_SYNC_OTHER, "the other enclosure manager is away"},
    {EPROTO, CLUSTER_SYNC_PROTOCOL, "the daemon's answer cannot be understood"},
    {EXDEV, CLUSTER_SYNC_NOT_REPLICATED,
     "the path lies in none of the replicated trees "
     "(/mnt/part.persistent/replicated_by_..._em, /var/run/replicated_by_active_em)"},
    {EPERM, CLUSTER_SYNC_NOT_REPLICATED,
     "/mnt/part.persistent/replicated_by_other_em is written by the other enclosure manager only"},
    {EINVAL, CLUSTER_SYNC_NOT_REPLICATED, "no file is replicated under this name"},
    {EISDIR, CLUSTER_SYNC_NOT_REPLICATED, nullptr},
    {ENOTDIR, CLUSTER_SYNC_NOT_REPLICATED, nullptr},
    {ELOOP, CLUSTER_SYNC_NOT_REPLICATED, "the path or a directory above it is a symbolic link"},
    {ENAMETOOLONG, CLUSTER_SYNC_NOT_REPLICATED, nullptr},
    {EFBIG, CLUSTER_SYNC_NOT_REPLICATED, "a replicated file is smaller than 4 GiB"},
    {ENOENT, CLUSTER_SYNC_NO_SUCH_FILE, nullptr},
};

const ErrorMeaning* meaning_of(int error) {
  for (const ErrorMeaning& meaning : kErrors) {
    if (meaning.error == error) return &meaning;
  }
  return nullptr;
}

// How the daemon's texts begin. `applied` is the reason if the change is applied here. Otherwise
// the system's text in the message decides, if there is one.
struct TextMeaning {
  const char* text;
  Reason applied;
};
constexpr TextMeaning kTexts[] = {
    {"Attempt to update shared replicated area while not active", CLUSTER_SYNC_NOT_ACTIVE},
    {"Too many RPC calls are already waiting", CLUSTER_SYNC_BUSY},
    {"Received unparseable RPC message", CLUSTER_SYNC_PROTOCOL},
    {"the daemon does not know this request", CLUSTER_SYNC_PROTOCOL},
    {"Operation timed out", CLUSTER_SYNC_TIMED_OUT},
    {"Unable to update file (", CLUSTER_SYNC_ERROR_THERE},
    {"Unable to delete file (", CLUSTER_SYNC_ERROR_THERE},
    {"Could not read file (", CLUSTER_SYNC_ERROR_THERE},
    {"Could not update file '", CLUSTER_SYNC_NOT_REPLICATED},
    {"Could not update file (", CLUSTER_SYNC_ERROR_HERE},
    {"Could not delete file (", CLUSTER_SYNC_ERROR_HERE},
    {"Corrupt digest file '", CLUSTER_SYNC_ERROR_HERE},
    {"Could not write differences (", CLUSTER_SYNC_ERROR_HERE},
    {"The peer left during the comparison", CLUSTER_SYNC_PROTOCOL},
    {"could not ", CLUSTER_SYNC_ERROR_HERE},
    {"call to lstat failed", CLUSTER_SYNC_ERROR_HERE},
    {"failed to read directory", CLUSTER_SYNC_ERROR_HERE},
    {"Local update dispatch never completed", CLUSTER_SYNC_ERROR_HERE},
    {"Write to eventfd failed", CLUSTER_SYNC_ERROR_HERE},
    {"Call to cpg_mcast_joined failed", CLUSTER_SYNC_PROTOCOL},
    {"Received ", CLUSTER_SYNC_PROTOCOL},
    {"Unexpected ", CLUSTER_SYNC_PROTOCOL},
    {"Mismatched ", CLUSTER_SYNC_PROTOCOL},
    {"Invalid CPG message", CLUSTER_SYNC_PROTOCOL},
    {"Malformed ", CLUSTER_SYNC_PROTOCOL},
    {"Chunk size in request header too large", CLUSTER_SYNC_PROTOCOL},
};

bool begins_with(const char* text, const char* beginning) {
  return strncmp(text, beginning, strlen(beginning)) == 0;
}

// The reason for "Could not ... file (SYSTEM'S TEXT): PATH" without an applied change.
Reason refused_for(const char* text) {
  const char* system_text = strchr(text, '(') + 1;
  if (begins_with(system_text, strerrordesc_np(EXDEV))) return CLUSTER_SYNC_OTHER_FILE_SYSTEM;
  for (const ErrorMeaning& meaning : kErrors) {
    const char* known = strerrordesc_np(meaning.error);
    if (meaning.error != 0 && begins_with(system_text, known) && system_text[strlen(known)] == ')')
      return meaning.reason == CLUSTER_SYNC_NO_DAEMON ? CLUSTER_SYNC_ERROR_HERE : meaning.reason;
  }
  return CLUSTER_SYNC_ERROR_HERE;
}

Reason reason_of(const cluster_sync_result& result) {
  for (const TextMeaning& meaning : kTexts) {
    if (!begins_with(result.reason, meaning.text)) continue;
    const bool is_system_error = meaning.text[strlen(meaning.text) - 1] == '(';
    return result.local_ok == 0 && is_system_error ? refused_for(result.reason) : meaning.applied;
  }
  return CLUSTER_SYNC_OTHER;
}

}  // namespace

enum cluster_sync_reason_code cluster_sync_reason(int error, const cluster_sync_result* result) {
  if (error == ECANCELED && result != nullptr) return reason_of(*result);
  const ErrorMeaning* meaning = meaning_of(error);
  return meaning != nullptr ? meaning->reason : CLUSTER_SYNC_ERROR_HERE;
}

const char* cluster_sync_strerror(int error) {
  const ErrorMeaning* meaning = meaning_of(error);
  const char* text =
      meaning != nullptr && meaning->text != nullptr ? meaning->text : strerrordesc_np(error);
  return text != nullptr ? text : "unknown error";
}

const char* cluster_sync_version() {
  return CLUSTER_SYNC_VERSION;
}
static_assert(__builtin_strcmp(CLUSTER_SYNC_VERSION, CSD_VERSION) == 0);
