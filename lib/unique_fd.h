// A file descriptor that is closed when its owner goes away. A close whose
// result matters is made explicitly with Close(); the destructor only
// releases.
#ifndef LIB_UNIQUE_FD_H_
#define LIB_UNIQUE_FD_H_

#include <unistd.h>

class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ >= 0) close(fd_);
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }

  // Closes now and returns close's result; the destructor then does nothing.
  int Close() {
    const int result = close(fd_);
    fd_ = -1;
    return result;
  }

 private:
  int fd_;
};

#endif  // LIB_UNIQUE_FD_H_
