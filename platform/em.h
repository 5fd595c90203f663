#ifndef PLATFORM_EM_H_
#define PLATFORM_EM_H_

#include <stdint.h>

// True while this enclosure manager is active: /var/run/em/active exists.
bool this_em_is_active();

// The number of the other enclosure manager. /var/run/em/number holds the number of this one, 1 or
// 2; anything else, or no file, counts as 1.
uint32_t get_my_mate_em_num();

// Where the number of this enclosure manager comes from.
enum NumberSource : uint32_t {
  kNumberRead = 0,     // /var/run/em/number holds it
  kNumberMissing = 1,  // no such file, so 1
  kNumberInvalid = 2,  // the file holds something else, so 1
};
NumberSource read_em_number(uint32_t* number);

// Logs an error if /var/run/em/number holds neither 1 nor 2. If both EMs are number 1 by mistake,
// replication works, but faults are reported under the wrong number. A missing file is not an
// error.
void check_em_number();

// Starts `/etc/em/use_replicated_data <id>`, detached, if that file is executable. Returns 0 unless
// it could not be started. `argument` is ignored.
int use_replicated_data(uint32_t id, int argument);

#endif  // PLATFORM_EM_H_
