#ifndef FRAME_SERVICE_STATUS_H_
#define FRAME_SERVICE_STATUS_H_

// What the service manager is told. Main thread only.

// Names this process as the main process of the service. Call it before the parent exits.
void announce_main_process();

// Sends READY=1 once the group is joined, the status text when it has changed, and, while `alive`,
// WATCHDOG=1. Call it well within WatchdogSec=, about every 10 s.
void tell_service_manager(bool alive);

#endif  // FRAME_SERVICE_STATUS_H_
