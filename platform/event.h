#ifndef PLATFORM_EVENT_H_
#define PLATFORM_EVENT_H_

#include <stdint.h>

// printf format of the path of an event's file, given its number.
constexpr char kEventFileFormat[] = "/var/run/em/events/0x%08x";

// Makes `record` the last state of the event: replaces /var/run/em/events/0x<8 hex digits of the
// number> through a temporary file. If there is no space for that, overwrites an existing record of
// the same size. Does not write if the file already holds this record. Returns 0, or non-zero on
// failure.
int event_send(uint32_t event, const void* record, uint32_t size);

#endif  // PLATFORM_EVENT_H_
