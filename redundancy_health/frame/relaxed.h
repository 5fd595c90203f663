#ifndef FRAME_RELAXED_H_
#define FRAME_RELAXED_H_

#include <atomic>

// A number that one thread changes and others read without a lock, deliberately. Each access is
// atomic but not ordered with others. It compiles to one plain load or store, except for 64 bits on
// 32-bit ARM. += and -= are not atomic: only the thread that changes the number, or a lock holder,
// may use them.
template <typename T>
class Relaxed {
 public:
  Relaxed() = default;
  operator T() const {
    return value_.load(std::memory_order_relaxed);
  }
  T operator=(T value) {  // NOLINT(misc-unconventional-assign-operator): as std::atomic does
    value_.store(value, std::memory_order_relaxed);
    return value;
  }
  void operator+=(T amount) {
    *this = static_cast<T>(*this + amount);
  }
  void operator-=(T amount) {
    *this = static_cast<T>(*this - amount);
  }

 private:
  std::atomic<T> value_{0};
};

#endif  // FRAME_RELAXED_H_
