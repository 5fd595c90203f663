#ifndef FRAME_CHECKED_LOCK_H_
#define FRAME_CHECKED_LOCK_H_

#include "platform/mutex.h"
#include "redundancy_health/frame/check.h"

// Holds `mutex` until the end of the scope. A failure aborts like a failed CHECK_ZERO of the call.
// The text of the call is part of the log: "EXCEPTION: pthread_mutex_lock(&g_exit_mutex) = 22".
#define HOLD_MUTEX(mutex)                                              \
  const CheckedLock checked_lock_(mutex, __FILE__, __LINE__, __func__, \
                                  "pthread_mutex_lock(&" #mutex ")",   \
                                  "pthread_mutex_unlock(&" #mutex ")")

class LOCK_SCOPE CheckedLock {
 public:
  CheckedLock(Mutex& mutex, const char* file, int line, const char* function, const char* lock_text,
              const char* unlock_text) ACQUIRES(mutex)
      : mutex_(&mutex), file_(file), line_(line), function_(function), unlock_text_(unlock_text) {
    const int value = pthread_mutex_lock(mutex_);
    if (value != 0) check_failed(file_, line_, function_, lock_text, value);
  }
  ~CheckedLock() RELEASES() {
    const int value = pthread_mutex_unlock(mutex_);
    if (value != 0) check_failed(file_, line_, function_, unlock_text_, value);
  }
  CheckedLock(const CheckedLock&) = delete;
  CheckedLock& operator=(const CheckedLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
  const char* file_;
  int line_;
  const char* function_;
  const char* unlock_text_;
};

#endif  // FRAME_CHECKED_LOCK_H_
