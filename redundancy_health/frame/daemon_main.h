#ifndef FRAME_DAEMON_MAIN_H_
#define FRAME_DAEMON_MAIN_H_

#include <stdint.h>

extern uint8_t g_foreground;      // -x: no daemonisation to report
extern int32_t g_cmd_socket_num;  // the command socket's number

// The daemon proper: starts the threads and the command server, waits for the exit flag, stops in
// order. Returns 0; what fails at the start aborts.
int daemon_main(int argc, char** argv);

#endif  // FRAME_DAEMON_MAIN_H_
