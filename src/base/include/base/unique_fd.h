// Owner of one file descriptor. Closes it exactly once, on every path out of a function.
#ifndef BASE_UNIQUE_FD_H
#define BASE_UNIQUE_FD_H

#include <unistd.h>

namespace corvo {

class UniqueFd {
  public:
    UniqueFd() = default;
    // Takes ownership of fd; with a negative value the object owns no descriptor.
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

    // Gives up ownership and returns the descriptor; the caller must close it.
    [[nodiscard]] int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

    // Closes the owned descriptor and takes ownership of fd. close() is not repeated after EINTR:
    // Linux has already released the descriptor, and another thread may have been given its number.
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
