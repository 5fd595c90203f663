#ifndef FRAME_DAEMON_MAIN_H_
#define FRAME_DAEMON_MAIN_H_

#include <stdint.h>

extern uint8_t g_foreground;      // option -x
extern int32_t g_cmd_socket_num;  // number of the command socket

// Starts the threads and the command server, waits for the exit flag and stops them in order.
// Returns 0. A failure during the start aborts.
int daemon_main(int argc, char** argv);

#endif  // FRAME_DAEMON_MAIN_H_
