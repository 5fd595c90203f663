#ifndef PLATFORM_DAEMON_H_
#define PLATFORM_DAEMON_H_

// Detaches from the terminal, locks the pid file /var/run/<name>.pid and runs `daemon_main(argc,
// argv)` in a new process. The calling process waits for daemon_signal_daemonize_complete and
// returns 0. If another instance holds the pid file or the new process exits first, it prints the
// reason on standard error and returns non-zero. The new process returns the result of
// `daemon_main`.
int daemon_create(const char* name, int (*daemon_main)(int, char**), int argc, char** argv);

// Tells the waiting parent, if any, that start-up is complete.
void daemon_signal_daemonize_complete();

#endif  // PLATFORM_DAEMON_H_
