// Stands behind sleep() and usleep() of the service's objects, so that what they do between their
// fixed pauses can be timed. Built in by the linker (--wrap).
#include <unistd.h>

extern "C" {

unsigned __wrap_sleep(unsigned /*seconds*/) {
    return 0;
}

int __wrap_usleep(useconds_t /*microseconds*/) {
    return 0;
}
}
