// Faults as data, behind the real system calls: a program that links `test_faults` has its calls
// wrapped (tests/hal.cmake lists them). They are named here without the "64" of large files.
#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#include <functional>
#include <string>
#include <vector>

struct Fault {
    std::string call;  // "open", "read", ...
    int ordinal;       // which call fails, from 1; 0: every one
    int error;         // errno of the failure; 0: a short transfer instead
    size_t count = 0;  // read and write with error 0: bytes that are really moved at the most
};

// What stands behind the calls, for a machine that lacks the device. "/proc/mtd" is a file in /tmp.
struct Devices {
    std::function<void(int fd, std::string& data)> write;  // changes what is stored
    std::function<int(unsigned long request, void* argument)> ioctl;
};
extern Devices& devices;

// Counts calls and lets the faults happen, from construction to destruction. One at a time. With it
// or without, select waits a millisecond and usleep not at all.
class Faults {
  public:
    explicit Faults(std::vector<Fault> wanted = {});
    ~Faults();

    static int calls(
        const std::string& call);  // for "usleep": the microseconds that were asked for
    static std::string opened();   // paths, in the order of the opens that went on, each with " "
};

#endif  // TESTS_SUPPORT_FAULTS_H
