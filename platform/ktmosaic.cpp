// Stand-in for the maker's platform library: the three calls that the service makes, over the C
// library. A device carries the real one.
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
