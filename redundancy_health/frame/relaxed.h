#ifndef FRAME_RELAXED_H_
#define FRAME_RELAXED_H_

#include <atomic>

// A number that one thread changes and others read without a lock, on purpose: every access is
// whole, with no order against anything else. It is one plain load or store, but for 64 bits on
// 32-bit ARM, where it takes exclusive ones. += and -= are for the thread that changes it (or under
// a lock); they are not one step.
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
