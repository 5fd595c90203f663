#ifndef PLATFORM_SERVICE_MANAGER_H_
#define PLATFORM_SERVICE_MANAGER_H_

// Whether the service manager that started this process wants to hear of it (sd_notify(3)).
bool service_manager_listens();

// Sends it assignments, one a line ("READY=1\nSTATUS=..."). Never waits: what does not get through
// is lost. Any thread.
void notify_service_manager(const char* assignments);

#endif  // PLATFORM_SERVICE_MANAGER_H_
