// Owner of one file descriptor: whoever opens something keeps it in one of these, so that every
// path out of a procedure closes it, exactly once.
#ifndef BASE_UNIQUE_FD_H
#define BASE_UNIQUE_FD_H

#include <unistd.h>

namespace corvo {

class UniqueFd {
  public:
    UniqueFd() = default;
    // Takes over fd; a negative value owns nothing.
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }

    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool valid() const { return fd_ >= 0; }

    // Hands the descriptor out; the caller closes it.
    [[nodiscard]] int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

    // Closes what is owned and takes over fd instead. close() is not repeated after EINTR: Linux
    // has released the descriptor by then, and another thread may already hold its number.
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

}  // namespace corvo

#endif  // BASE_UNIQUE_FD_H
