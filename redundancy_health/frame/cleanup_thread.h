#ifndef FRAME_CLEANUP_THREAD_H_
#define FRAME_CLEANUP_THREAD_H_

// Body of cleanup_thread: runs /usr/bin/clean_up_temp_files.py after an initial delay and then
// periodically. The environment variables CLEANUP_INITIAL_DELAY and CLEANUP_PERIODIC_DELAY are
// minutes (the low 20 bits count; 0 or no number means the default: 1 minute, then 60). Returns
// null within a second of the exit flag, or when the running script ends. The argument is ignored.
void* cleanup_thread_fn(void* argument);

#endif  // FRAME_CLEANUP_THREAD_H_
