#ifndef TOOLS_INTERRUPT_H_
#define TOOLS_INTERRUPT_H_

#include <stdint.h>
#include <sys/types.h>

// A command that would leave something behind holds back SIGHUP, SIGINT and SIGTERM and lets them
// in where it waits. main ends the process by the signal once the command has cleaned up.

void hold_signals();

// The signal that has come, 0 for none.
int signal_that_came();

// Ends the process as the signal would have, if one has come.
void end_by_signal();

// Waits until `fd` can be read, and takes the time from `*left_ms`. Returns 0, ETIMEDOUT when
// nothing is left, or EINTR when a signal has come.
int wait_readable(int fd, int64_t* left_ms);

// Starts `command` in a shell with the signals as this program found them, and waits for its end.
// SIGINT is left to it; SIGHUP and SIGTERM are passed on, after which it has two seconds. Returns
// the status as waitpid(2) does, or -1 when it could not be started or did not end.
int run_in_foreground(const char* command);

#endif  // TOOLS_INTERRUPT_H_
