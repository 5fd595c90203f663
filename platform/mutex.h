#ifndef PLATFORM_MUTEX_H_
#define PLATFORM_MUTEX_H_

#include <pthread.h>

// Which mutex guards what, in words that clang checks (-Wthread-safety, see `./run lint`). Other
// compilers see a plain pthread_mutex_t.

#ifdef __clang__
#define THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define THREAD_ANNOTATION(attribute)
#endif

// On a field or a variable: read and written only with `mutex` held.
#define GUARDED_BY(mutex) THREAD_ANNOTATION(guarded_by(mutex))
// On a function: its caller holds `mutex`.
#define REQUIRES(mutex) THREAD_ANNOTATION(requires_capability(mutex))
// On a function that reads without the mutex on purpose.
#define READS_WITHOUT_MUTEX THREAD_ANNOTATION(no_thread_safety_analysis)
#define ACQUIRES(mutex) THREAD_ANNOTATION(acquire_capability(mutex))
#define RELEASES() THREAD_ANNOTATION(release_capability())
#define LOCK_SCOPE THREAD_ANNOTATION(scoped_lockable)

typedef pthread_mutex_t THREAD_ANNOTATION(capability("mutex")) Mutex;

// Holds a mutex to the end of the scope.
class LOCK_SCOPE MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRES(mutex) : mutex_(&mutex) {
    pthread_mutex_lock(mutex_);
  }
  ~MutexLock() RELEASES() {
    pthread_mutex_unlock(mutex_);
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

#endif  // PLATFORM_MUTEX_H_
