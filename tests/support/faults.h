// Injects faults into the system calls of the program that is linked with this file: a test
// program, or the whole service, which reads the faults from its environment. Waiting is shortened:
// sleep() takes a thousandth, usleep() and the service's nanosleep() a tenth or less, select() a
// millisecond. The program is aborted if image data or the outcome record are not written
// synchronously and flushed. Like the service, this needs no C++ run-time library. tests/hal.cmake
// lists the calls; their names here are without the "64" for large files.
#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#include <stddef.h>

#include <initializer_list>

// The effect on a call; a positive value: the call fails with this errno.
enum Effect {
    SHORT = 0,  // read, write and send transfer at most `count` bytes; a timed wait takes at most
                // `count` milliseconds
    CUT = -1,   // "change", "sync" and "sleep": the power is cut before it
    TEAR = -2,  // "write": the power is cut in the middle of it
    FLIP = -3,  // "image", a write of image data to a partition: a wrong bit is stored, which reads
                // return after the page cache was dropped
    CRASH = -4,  // abort()
    NONE = -5,
    OVERFLOW = -6,  // the stack of the calling thread overflows
};

struct Fault {
    // "open", "read", ..., or a kind: "image", or "change" for each call with an external effect.
    const char* call;
    int ordinal;  // number of the call, from 1 ("sleep": number of the second with which the call
                  // ends); negative: this call and all that follow
    int effect;
    size_t count = 0;
};

// Simulated devices for the calls. "/proc/mtd" is replaced by a file in /tmp.
struct Devices {
    void (*write)(int fd, char* data, size_t size) = nullptr;  // may change the bytes to be stored
    int (*ioctl)(int fd, unsigned long request, void* argument) = nullptr;
    size_t (*send)(int fd, const void* data,
                   size_t size) = nullptr;  // returns the bytes to be sent
    unsigned hurry = 10;                    // divisor for usleep()
};
extern Devices devices;

// Counts calls and injects at most eight faults, from construction to destruction. Only one object
// may exist at a time.
class Faults {
  public:
    Faults(std::initializer_list<Fault> wanted = {});
    ~Faults();

    // Returns the number of calls; for "usleep" the requested microseconds, for "tick" the
    // milliseconds of select().
    static int calls(const char* call);
    static const char* opened();  // paths of successful opens in order, each followed by " "
};

// The service reads "CALL:ORDINAL:EFFECT:COUNT ..." from the environment variable FAULTS_VARIABLE.
// At its end it writes to the file FAULTS_REPORT: the number of calls with the name of the first
// fault, the number of its open descriptors, and the requested duration of each timed wait in
// tenths of a second. It also has an additional thread with no signal blocked, as a library may
// start one.
constexpr char FAULTS_VARIABLE[] = "CORVO_FAULTS";
constexpr char FAULTS_REPORT[] = "/tmp/faults_report";

#endif  // TESTS_SUPPORT_FAULTS_H
