// Replacement for the manufacturer's platform library on a host: implements the three functions
// that the service calls with the C library. A camera has the real library.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "platform/plt.h"

int Plt_SysInit(void) {
    return 0;
}

int Plt_SNPrintf(char* buffer, size_t capacity, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(buffer, capacity, format, arguments);
    va_end(arguments);
    return length;
}

void* Plt_MemSet(void* target, int value, size_t size) {
    return memset(target, value, size);
}
