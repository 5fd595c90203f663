#ifndef PLATFORM_EVENT_H_
#define PLATFORM_EVENT_H_

#include <stdint.h>

// printf format of an event's file, given its number.
constexpr char kEventFileFormat[] = "/var/run/em/events/0x%08x";

// Makes `record` the last state of the event: replaces /var/run/em/events/0x<8 hex digits of the
// number> through a temporary file, or, when there is no room for one, writes over the record of
// the same size that is there. A file that holds just this record already stays as it is. Returns
// 0, or non-zero when it cannot.
int event_send(uint32_t event, const void* record, uint32_t size);

#endif  // PLATFORM_EVENT_H_
