// The stack on which a signal handler runs (sigaltstack(2)), so that a thread whose own stack is
// used up can still say so.
#ifndef BASE_ALTERNATE_STACK_H
#define BASE_ALTERNATE_STACK_H

#include <signal.h>
#include <stddef.h>

namespace corvo {

// Serves the thread that made it, and only that one, as long as it lives. To be a local object of
// the thread's first procedure: the bytes then lie at the stack's begin, out of the way of its use.
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
    // What the kernel saves of the widest processors takes 11 KiB, a record of the transport 1.
    static constexpr size_t SIZE = size_t{24} * 1024;  // bytes

    alignas(16) char bytes_[SIZE];
    stack_t before_{};
};

}  // namespace corvo

#endif  // BASE_ALTERNATE_STACK_H
