#ifndef PLATFORM_SERVICE_MANAGER_H_
#define PLATFORM_SERVICE_MANAGER_H_

// Whether the service manager that started this process accepts notifications (sd_notify(3)).
bool service_manager_listens();

// Sends assignments, one per line ("READY=1\nSTATUS=..."). Never blocks; a message that cannot be
// sent is lost. Any thread.
void notify_service_manager(const char* assignments);

#endif  // PLATFORM_SERVICE_MANAGER_H_
