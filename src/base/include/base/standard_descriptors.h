// Opens standard input, output and error when a program was started without some of them. Otherwise
// the next file that the program opens would get such a descriptor, and everything printed would be
// written to that file, which may be a partition.
#ifndef BASE_STANDARD_DESCRIPTORS_H
#define BASE_STANDARD_DESCRIPTORS_H

#include <fcntl.h>
#include <unistd.h>

#include "base/ignore_result.h"

namespace corvo {

// For each of the three descriptors that is closed, opens "/dev/null". If that does not exist,
// opens the root directory, to which nothing can be written. Call before any other file is opened.
inline void occupy_standard_descriptors() {
    for (int standard = STDIN_FILENO; standard <= STDERR_FILENO; ++standard) {
        // open(2) returns the lowest free descriptor, which is this one.
        if (fcntl(standard, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) {
            ignore_result(open("/", O_RDONLY));
        }
    }
}

}  // namespace corvo

#endif  // BASE_STANDARD_DESCRIPTORS_H
