#include "tools/fault_record.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "platform/event.h"
#include "redundancy_health/transport/exchange_outcome.h"
#include "tools/output.h"

FaultState read_fault_state() {
  FaultState state;
  char path[64];
  snprintf(path, sizeof path, kEventFileFormat, kReplicationFaultEvent);
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT) state.error = std::string(path) + ": " + strerror(errno);
    return state;
  }
  uint8_t bytes[sizeof(ReplicationFaultEvent) + 1] = {};
  const ssize_t size = read(fd, bytes, sizeof bytes);
  close(fd);
  ReplicationFaultEvent event = {};
  memcpy(&event, bytes, sizeof event);
  if (size != static_cast<ssize_t>(sizeof event) || event.fault_id != kReplicationFaultId ||
      (event.status != kReplicationHealthy && event.status != kReplicationFailing)) {
    state.error = std::string(path) + " holds no state of the replication fault";
    return state;
  }
  state.recorded = true;
  state.healthy = event.status == kReplicationHealthy;
  state.peer_em = event.em_num;
  return state;
}

std::string fault_text(const FaultState& state) {
  if (!state.error.empty()) return state.error;
  if (!state.recorded) return "no fault state has been recorded yet";
  return "replication with EM " + std::to_string(state.peer_em) + " is " +
         (state.healthy ? "healthy" : "failing");
}

std::string fault_json(const FaultState& state) {
  if (!state.error.empty()) return "\"error\":" + json_string(state.error);
  if (!state.recorded) return "\"recorded\":false";
  char text[128];
  snprintf(text, sizeof text,
           "\"recorded\":true,\"em\":%u,\"fault_id\":%u,\"status\":%u,\"healthy\":%s",
           state.peer_em, kReplicationFaultId,
           state.healthy ? kReplicationHealthy : kReplicationFailing, json_bool(state.healthy));
  return text;
}
