// Owns one file descriptor.
#ifndef BASE_UNIQUE_FD_H_
#define BASE_UNIQUE_FD_H_

#include <errno.h>
#include <unistd.h>

// Closes its descriptor when it goes; keeps errno, since a log line often follows a close.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~UniqueFd() { Reset(); }

  int Get() const { return fd_; }
  bool Valid() const { return fd_ >= 0; }

  // Hands the descriptor to the caller, who closes it now.
  int Release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

  void Reset(int fd = -1) {
    const int saved = errno;
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
    errno = saved;
  }

 private:
  int fd_;
};

#endif  // BASE_UNIQUE_FD_H_
