// The part of the manufacturer's platform library, libktmosaic.so, that the service uses.
#ifndef PLATFORM_PLT_H
#define PLATFORM_PLT_H

#include <stddef.h>

// Program and library find these symbols by name at run time, so they stay visible even if the
// default visibility is hidden.
#pragma GCC visibility push(default)
extern "C" {

// Initialises the platform library. Call once, before any other Plt_ function. The manufacturer
// does not document the result, and the service does not use it.
int Plt_SysInit(void);

// Formats as snprintf() does: writes at most capacity bytes, including the terminating NUL, to
// buffer. Returns the length of the whole text without truncation, or a negative value.
int Plt_SNPrintf(char* buffer, size_t capacity, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Sets size bytes starting at target to the byte value. Returns target.
void* Plt_MemSet(void* target, int value, size_t size);

// The library looks this object up in the program that loads it. The program must define and export
// it, but never reads or writes it.
extern void* Plt_Log_TcpPrint;
}
#pragma GCC visibility pop

#endif  // PLATFORM_PLT_H
