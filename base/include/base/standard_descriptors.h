// Standard input, output and error of a program that was started without some of them. The next
// file that it opens would take the number: what it prints would go into a partition then.
#ifndef BASE_STANDARD_DESCRIPTORS_H
#define BASE_STANDARD_DESCRIPTORS_H

#include <fcntl.h>
#include <unistd.h>

#include "base/ignore_result.h"

namespace corvo {

// Opens "/dev/null", or where there is none the root directory, which takes no writes, for each of
// the three that is closed. To be called before anything else is opened.
inline void occupy_standard_descriptors() {
    for (int standard = STDIN_FILENO; standard <= STDERR_FILENO; ++standard) {
        // The lowest free number is given out, which is this one.
        if (fcntl(standard, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) {
            ignore_result(open("/", O_RDONLY));
        }
    }
}

}  // namespace corvo

#endif  // BASE_STANDARD_DESCRIPTORS_H
