#ifndef PLATFORM_MUTEX_H_
#define PLATFORM_MUTEX_H_

#include <pthread.h>

// Annotations that say which mutex guards what; clang checks them (-Wthread-safety, see `./run
// lint`). Other compilers see a plain pthread_mutex_t.

#ifdef __clang__
#define THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define THREAD_ANNOTATION(attribute)
#endif

// For a field or a variable: access it only with `mutex` held.
#define GUARDED_BY(mutex) THREAD_ANNOTATION(guarded_by(mutex))
// For a function: call it only with `mutex` held.
#define REQUIRES(mutex) THREAD_ANNOTATION(requires_capability(mutex))
// For a function that deliberately reads without the mutex.
#define READS_WITHOUT_MUTEX THREAD_ANNOTATION(no_thread_safety_analysis)
#define ACQUIRES(mutex) THREAD_ANNOTATION(acquire_capability(mutex))
#define RELEASES() THREAD_ANNOTATION(release_capability())
#define LOCK_SCOPE THREAD_ANNOTATION(scoped_lockable)

typedef pthread_mutex_t THREAD_ANNOTATION(capability("mutex")) Mutex;

// Holds a mutex until the end of the scope.
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
