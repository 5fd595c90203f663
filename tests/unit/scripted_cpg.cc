#include "tests/unit/scripted_cpg.h"

#include <string.h>
#include <unistd.h>

#include "redundancy_health/transport/sync_thread.h"

ScriptedCpg g_cpg;

namespace {

cs_error_t next(std::deque<cs_error_t>* results) {
  const cs_error_t result = results->empty() ? CS_OK : results->front();
  if (!results->empty()) results->pop_front();
  return result;
}

cs_error_t result_of(const char* call) {
  return g_cpg.failing == call ? CS_ERR_LIBRARY : CS_OK;
}

void deliver(uint32_t nodeid, uint32_t pid, const std::string& message) {
  const cpg_name group = {7, "em-sync"};
  std::vector<uint8_t> bytes(message.begin(), message.end());
  on_cpg_message(g_context.cpg_handle, &group, nodeid, pid, bytes.data(), bytes.size());
}

}  // namespace

std::string bytes_of(const SentMessage& message) {
  return std::string(reinterpret_cast<const char*>(&message.header), sizeof(message.header)) +
         message.payload;
}

void deliver_own(const std::string& message) {
  deliver(g_context.cpg_local_nodeid, static_cast<uint32_t>(getpid()), message);
}

void deliver_own(const SentMessage& message) {
  deliver_own(bytes_of(message));
}

void deliver_from_peer(const std::string& message) {
  deliver(2, static_cast<uint32_t>(getpid()) + 1, message);  // another process, whatever its node
}

extern "C" {

cs_error_t cpg_model_initialize(cpg_handle_t* handle, cpg_model_t, cpg_model_data_t*,
                                void* context) {
  g_cpg.context = context;
  *handle = 77;
  return result_of("cpg_model_initialize");
}

cs_error_t cpg_finalize(cpg_handle_t) {
  g_cpg.finalized = true;
  return result_of("cpg_finalize");
}

cs_error_t cpg_join(cpg_handle_t, const struct cpg_name* group) {
  g_cpg.joined_group.assign(group->value, group->length);
  return next(&g_cpg.join_results);
}

cs_error_t cpg_context_set(cpg_handle_t, void* context) {
  g_cpg.context = context;
  return result_of("cpg_context_set");
}

cs_error_t cpg_context_get(cpg_handle_t, void** context) {
  *context = g_cpg.context;
  return CS_OK;
}

cs_error_t cpg_local_get(cpg_handle_t, unsigned int* nodeid) {
  *nodeid = 1;
  return result_of("cpg_local_get");
}

cs_error_t cpg_fd_get(cpg_handle_t, int* fd) {
  *fd = g_cpg.fd;
  return result_of("cpg_fd_get");
}

cs_error_t cpg_dispatch(cpg_handle_t, cs_dispatch_flags_t) {
  return g_cpg.on_dispatch ? g_cpg.on_dispatch() : CS_OK;
}

cs_error_t cpg_mcast_joined(cpg_handle_t, cpg_guarantee_t, const struct iovec* pieces,
                            unsigned int count) {
  ++g_cpg.mcast_calls;
  const cs_error_t result = next(&g_cpg.mcast_results);
  if (result != CS_OK) return result;
  SentMessage message = {};
  if (count != 2 || pieces[0].iov_len != sizeof(message.header)) return CS_ERR_INVALID_PARAM;
  memcpy(&message.header, pieces[0].iov_base, sizeof(message.header));
  message.payload.assign(static_cast<const char*>(pieces[1].iov_base), pieces[1].iov_len);
  g_cpg.sent.push_back(message);
  return CS_OK;
}
}
