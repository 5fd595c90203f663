#ifndef PLATFORM_EM_H_
#define PLATFORM_EM_H_

#include <stdint.h>

// True while this enclosure manager is the active one: /var/run/em/active exists.
bool this_em_is_active();

// The number of the other enclosure manager: /var/run/em/number holds this one's, 1 or 2 (anything
// else, or no such file, counts as 1); the mate's is the other.
uint32_t get_my_mate_em_num();

// How this enclosure manager's own number was found.
enum NumberSource : uint32_t {
  kNumberRead = 0,     // /var/run/em/number holds it
  kNumberMissing = 1,  // there is no such file: 1
  kNumberInvalid = 2,  // it holds something else: 1
};
NumberSource read_em_number(uint32_t* number);

// Logs at level 3 what /var/run/em/number holds when that is neither 1 nor 2: two EMs that are both
// number 1 by mistake work, but report each other's faults under the wrong number. A missing file
// is no mistake.
void check_em_number();

// Starts `/etc/em/use_replicated_data <id>`, detached, when that file is executable. Returns 0
// unless it could not be started. `argument` is not interpreted.
int use_replicated_data(uint32_t id, int argument);

#endif  // PLATFORM_EM_H_
