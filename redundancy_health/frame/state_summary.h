#ifndef FRAME_STATE_SUMMARY_H_
#define FRAME_STATE_SUMMARY_H_

#include <string>

#include "redundancy_health/frame/state_record.h"

// Whether the last exchange whose outcome this EM knows has failed.
bool last_exchange_failed(const StateRecord& state);

// Whether replication works, as far as this EM knows.
bool state_is_well(const StateRecord& state);

// The state in one line of words. Without ages, so that it changes only with the state. All bytes
// of file names that are not printable ASCII are escaped.
std::string state_summary(const StateRecord& state);

// The name of an Activity, such as "hashing".
const char* activity_name(uint32_t activity);

#endif  // FRAME_STATE_SUMMARY_H_
