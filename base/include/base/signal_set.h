// A set of signals from a table of them, for masks and waits.
#ifndef BASE_SIGNAL_SET_H
#define BASE_SIGNAL_SET_H

#include <signal.h>
#include <stddef.h>

namespace corvo {

template <size_t COUNT>
sigset_t signal_set(const int (&signals)[COUNT]) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : signals) {
        sigaddset(&set, signo);
    }
    return set;
}

}  // namespace corvo

#endif  // BASE_SIGNAL_SET_H
