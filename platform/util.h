#ifndef PLATFORM_UTIL_H_
#define PLATFORM_UTIL_H_

#include <pthread.h>
#include <stddef.h>

// Writes one line to syslog (ident CLUS_SYNC, LOG_DAEMON) and, after debug_log_to_stdout(1), with a
// single write to standard output. `level` is a syslog priority. A line above the threshold
// (environment variable BREL_LOG_LEVEL, default 6) is dropped before it is formatted. Any thread;
// errno is unchanged.
void DbgOutput(const char* file, int line, const char* function, int level, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// Non-zero: also write the log to standard output. 0: stop that.
void debug_log_to_stdout(int enable);

// Starts `function(argument)` as a thread called `name` (the kernel keeps the first 15 bytes).
// Without attributes the stack has at least 4 MiB, because cpg_dispatch(3) keeps a buffer of 1 MiB
// on it. Returns 0 or an error number. On success `*thread` is joinable.
int Create_Thread(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                  void* argument, const char* name);

// Copies the name of the calling thread to `buffer`, cut to fit and always terminated.
void GetThreadName(char* buffer, size_t size);

// Initialises `*cond` for timed waits on the monotonic clock. Returns 0 or an error number.
int _brel_cond_init(pthread_cond_t* cond);

// Runs the program argv[0] (a path) with the null-terminated vector `argv` and waits for it.
// Returns its exit status, 128 + the number of the signal that killed it, or 127 if it could not be
// started.
int execute_normal(const char* const argv[]);

#endif  // PLATFORM_UTIL_H_
