#ifndef FRAME_SERVICE_STATUS_H_
#define FRAME_SERVICE_STATUS_H_

// What the service manager is told. The main thread's.

// This process is the service, whoever started it: before its parent ends.
void announce_main_process();

// The start is complete once the group is joined; the state in words when it has changed; and,
// while `alive`, food for the watchdog. About once a second.
void tell_service_manager(bool alive);

#endif  // FRAME_SERVICE_STATUS_H_
