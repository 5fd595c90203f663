#ifndef TOOLS_INTERRUPT_H_
#define TOOLS_INTERRUPT_H_

#include <stdint.h>
#include <sys/types.h>

// A command that must clean up holds back SIGHUP, SIGINT and SIGTERM and checks for them where it
// waits. After the cleanup, main ends the process by the signal.

void hold_signals();

// The received signal, 0 for none.
int signal_that_came();

// If a signal was received, ends the process as that signal would have.
void end_by_signal();

// Waits until `fd` is readable and subtracts the elapsed time from `*left_ms`. Returns 0, ETIMEDOUT
// if no time is left, or EINTR if a signal was received.
int wait_readable(int fd, int64_t* left_ms);

// Runs `command` in a shell, with the original signal handling, and waits for it. The command
// handles SIGINT itself. SIGHUP and SIGTERM are passed on; after that it has two seconds. Returns
// the status as from waitpid(2), or -1 if it could not be started or did not end.
int run_in_foreground(const char* command);

#endif  // TOOLS_INTERRUPT_H_
