#ifndef TESTS_UNIT_SCRIPTED_CPG_H_
#define TESTS_UNIT_SCRIPTED_CPG_H_

#include <corosync/cpg.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "redundancy_health/transport/cpg_message.h"

// Replaces the CPG library: records what is sent and returns scripted results. Everything that is
// not scripted succeeds.

struct SentMessage {
  CpgHeader header;
  std::string payload;
};

struct ScriptedCpg {
  std::vector<SentMessage> sent;         // accepted multicasts, in order
  std::deque<cs_error_t> mcast_results;  // results of the next cpg_mcast_joined calls
  std::deque<cs_error_t> join_results;   // results of the next cpg_join calls
  std::string failing;                   // name of one other call that fails with CS_ERR_LIBRARY
  int mcast_calls = 0;
  bool finalized = false;
  int fd = -1;                              // returned by cpg_fd_get
  std::function<cs_error_t()> on_dispatch;  // body of cpg_dispatch; none: CS_OK
  std::string joined_group;                 // the bytes of the name, according to its length field
  void* context = nullptr;                  // cpg_context_set / cpg_context_get
};

extern ScriptedCpg g_cpg;

std::string bytes_of(const SentMessage& message);

// Passes a message to the delivery callback, in a buffer of its exact size, from this process or
// from the peer (node 2).
void deliver_own(const std::string& message);
void deliver_own(const SentMessage& message);
void deliver_from_peer(const std::string& message);

#endif  // TESTS_UNIT_SCRIPTED_CPG_H_
