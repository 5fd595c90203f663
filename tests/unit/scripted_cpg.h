#ifndef TESTS_UNIT_SCRIPTED_CPG_H_
#define TESTS_UNIT_SCRIPTED_CPG_H_

#include <corosync/cpg.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "redundancy_health/transport/cpg_message.h"

// Stands in for the CPG library: records what is sent and answers from a script. What a test does
// not script succeeds.

struct SentMessage {
  CpgHeader header;
  std::string payload;
};

struct ScriptedCpg {
  std::vector<SentMessage> sent;         // accepted multicasts, in order
  std::deque<cs_error_t> mcast_results;  // answers of the next cpg_mcast_joined calls
  int mcast_calls = 0;                   // accepted or not
  std::deque<cs_error_t> join_results;   // answers of the next cpg_join calls
  int join_calls = 0;
  cs_error_t initialize_result = CS_OK;
  cs_error_t context_set_result = CS_OK;
  cs_error_t context_get_result = CS_OK;
  cs_error_t local_get_result = CS_OK;
  cs_error_t fd_get_result = CS_OK;
  cs_error_t finalize_result = CS_OK;
  uint32_t nodeid = 1;
  int fd = -1;                              // given out by cpg_fd_get
  std::function<cs_error_t()> on_dispatch;  // body of cpg_dispatch; none: CS_OK
  int finalize_calls = 0;
  std::string joined_group;        // the name's bytes, by its length field
  cpg_model_v1_data_t model = {};  // given to cpg_model_initialize
  void* context = nullptr;         // cpg_context_set / cpg_context_get
};

extern ScriptedCpg g_cpg;

#endif  // TESTS_UNIT_SCRIPTED_CPG_H_
