// Faults as data, behind the system calls of the program that is linked with them: a test's own, or
// the whole service, which finds them in its environment. Meanwhile time is short: sleep() takes a
// thousandth, usleep() and the service's nanosleep() a tenth or less, select() a millisecond. Image
// data and the outcome record must be written synchronously and flushed, or the program is aborted.
// Needs no C++ run-time library, as little as the service. tests/hal.cmake lists the calls; they
// are named here without the "64" of large files.
#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#include <stddef.h>

#include <initializer_list>

// What happens to a call; above 0: it fails with this errno.
enum Effect {
    SHORT = 0,   // read, write and send move `count` bytes at the most; a timed wait takes `count`
                 // milliseconds at the most
    CUT = -1,    // "change", "sync" and "sleep": the power is cut before it
    TEAR = -2,   // "write": the power is cut in the middle of it
    FLIP = -3,   // "image", a write of image data to a partition: a wrong bit is stored, which is
                 // read when the page cache has been dropped
    CRASH = -4,  // abort()
    NONE = -5,
    OVERFLOW = -6,  // the stack of the calling thread is used up
};

struct Fault {
    // "open", "read", ..., or a kind: "image", or "change" for all that changes the world outside.
    const char* call;
    int ordinal;  // which call meets it, from 1 ("sleep": which second, as the last of a call);
                  // negative: that one and all that follow
    int effect;
    size_t count = 0;
};

// What stands behind the calls, for a machine that lacks the device. "/proc/mtd" is a file in /tmp.
struct Devices {
    void (*write)(int fd, char* data, size_t size) = nullptr;  // changes what is stored
    int (*ioctl)(int fd, unsigned long request, void* argument) = nullptr;
    size_t (*send)(int fd, const void* data, size_t size) = nullptr;  // returns what is really sent
    unsigned hurry = 10;                                              // what usleep() is divided by
};
extern Devices devices;

// Counts calls and lets the faults happen, eight at the most, from construction to destruction. One
// at a time.
class Faults {
  public:
    Faults(std::initializer_list<Fault> wanted = {});
    ~Faults();

    // Of "usleep" the microseconds that were asked for, of "tick" the milliseconds of select().
    static int calls(const char* call);
    static const char* opened();  // paths, in the order of the opens that went on, each with " "
};

// The service takes "CALL:ORDINAL:EFFECT:COUNT ..." from the first of these in its environment, and
// leaves the number of calls that the first fault's name had, that of its open descriptors, and how
// long each timed wait was to take, in tenths of a second, in a file. It has a thread of another
// library then, with every signal open.
constexpr char FAULTS_VARIABLE[] = "CORVO_FAULTS";
constexpr char FAULTS_REPORT[] = "/tmp/faults_report";

#endif  // TESTS_SUPPORT_FAULTS_H
