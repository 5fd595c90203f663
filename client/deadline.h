#ifndef CLIENT_DEADLINE_H_
#define CLIENT_DEADLINE_H_

#include <limits.h>
#include <stdint.h>
#include <time.h>

// The end of a time limit given in milliseconds. A negative limit means none.
class Deadline {
 public:
  explicit Deadline(int timeout_ms) : limited_(timeout_ms >= 0), end_ms_(now_ms() + timeout_ms) {}

  // The remaining time as for poll(2): 0 when it has expired, -1 without a limit.
  int left_ms() const {
    if (!limited_) return -1;
    const int64_t left = end_ms_ - now_ms();
    return left <= 0 ? 0 : left < INT_MAX ? static_cast<int>(left) : INT_MAX;
  }

  // Does not count the time since `start_ms`.
  void exclude_since(int64_t start_ms) {
    end_ms_ += now_ms() - start_ms;
  }

  static int64_t now_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
  }

 private:
  bool limited_;
  int64_t end_ms_;
};

#endif  // CLIENT_DEADLINE_H_
