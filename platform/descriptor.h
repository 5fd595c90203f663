#ifndef PLATFORM_DESCRIPTOR_H_
#define PLATFORM_DESCRIPTOR_H_

#include <errno.h>
#include <stddef.h>
#include <unistd.h>

// Owns an open file descriptor, or none (-1), and closes it at the end of the scope. errno is
// unchanged, so that a function can return with the reason of its failure.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~Descriptor() {
    reset();
  }

  bool is_open() const {
    return fd_ >= 0;
  }
  int get() const {
    return fd_;
  }
  // Gives up ownership, for example to fdopen(3) or to a caller that checks the result of close.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  // Closes the descriptor and takes ownership of `fd`. errno is unchanged.
  void reset(int fd = -1) {
    const int error = errno;
    if (fd_ >= 0) close(fd_);
    errno = error;
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Writes all bytes, even if interrupted by signals. Returns 0 or an error number.
int write_fully(int fd, const void* data, size_t size);

#endif  // PLATFORM_DESCRIPTOR_H_
