#ifndef FRAME_STATE_SUMMARY_H_
#define FRAME_STATE_SUMMARY_H_

#include <string>

#include "redundancy_health/frame/state_record.h"

// Whether the last exchange that this EM knows the outcome of has failed.
bool last_exchange_failed(const StateRecord& state);

// Whether replication works, as far as this EM can know.
bool state_is_well(const StateRecord& state);

// The state in a line of words, without ages: it stays the same as long as the state does. Bytes of
// file names that could do anything else than be read are escaped.
std::string state_summary(const StateRecord& state);

// "hashing" and the like.
const char* activity_name(uint32_t activity);

#endif  // FRAME_STATE_SUMMARY_H_
