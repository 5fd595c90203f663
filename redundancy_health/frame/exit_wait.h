#ifndef FRAME_EXIT_WAIT_H_
#define FRAME_EXIT_WAIT_H_

// Waits `seconds`, without waking up meanwhile. Returns early, with true, when set_exit_daemon was
// called, but at the end of the second of the wait in which that happened, as whoever asked at the
// beginning of every second would. A call in the last second is left to the next wait.
bool exit_requested_within(int seconds);

#endif  // FRAME_EXIT_WAIT_H_
