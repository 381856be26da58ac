// Replaces sleep() and usleep() in the service's objects (linker option --wrap), so that the time
// between the fixed pauses can be measured.
#include <unistd.h>

extern "C" {

unsigned __wrap_sleep(unsigned /*seconds*/) {
    return 0;
}

int __wrap_usleep(useconds_t /*microseconds*/) {
    return 0;
}
}
