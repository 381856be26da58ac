// A separate stack for signal handlers (sigaltstack(2)), so that the crash handler can still run on
// a thread that has overflowed its own stack.
#ifndef BASE_ALTERNATE_STACK_H
#define BASE_ALTERNATE_STACK_H

#include <signal.h>
#include <stddef.h>

namespace corvo {

// Applies only to the thread that creates the object, until the object is destroyed. Declare it as
// a local variable of the thread's first function: its bytes are then at the beginning of the
// thread's stack, away from the end that overflows.
class AlternateStack {
  public:
    AlternateStack() {
        const stack_t own = {.ss_sp = bytes_, .ss_flags = 0, .ss_size = sizeof(bytes_)};
        sigaltstack(&own, &before_);
    }
    ~AlternateStack() { sigaltstack(&before_, nullptr); }

    AlternateStack(const AlternateStack&) = delete;
    AlternateStack& operator=(const AlternateStack&) = delete;

  private:
    // The kernel saves up to 11 KiB of processor registers on this stack; a transport record on it
    // needs 1 KiB.
    static constexpr size_t SIZE = size_t{24} * 1024;  // bytes

    alignas(16) char bytes_[SIZE];
    stack_t before_{};
};

}  // namespace corvo

#endif  // BASE_ALTERNATE_STACK_H
