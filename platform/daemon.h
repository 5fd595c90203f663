#ifndef PLATFORM_DAEMON_H_
#define PLATFORM_DAEMON_H_

// Detaches from the terminal, takes the pid file /var/run/<name>.pid and runs
// `daemon_main(argc, argv)` in the new process. The caller's process waits for
// daemon_signal_daemonize_complete and returns 0, or non-zero with the reason on standard error
// when another instance holds the pid file or the new process ends first. In the new process the
// result is that of `daemon_main`.
int daemon_create(const char* name, int (*daemon_main)(int, char**), int argc, char** argv);

// Tells the waiting parent that start-up is complete. Without a waiting parent it does nothing.
void daemon_signal_daemonize_complete();

#endif  // PLATFORM_DAEMON_H_
