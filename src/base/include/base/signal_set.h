// Converts an array of signal numbers to a sigset_t.
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
