#ifndef FRAME_EXIT_WAIT_H_
#define FRAME_EXIT_WAIT_H_

// Sleeps for `seconds`. Returns true if set_exit_daemon was called before the last second; it then
// returns at the end of the current second, like a caller that checks the flag once a second. A
// call in the last second is left to the next wait.
bool exit_requested_within(int seconds);

#endif  // FRAME_EXIT_WAIT_H_
