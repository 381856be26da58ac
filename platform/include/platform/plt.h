// What the service uses of the maker's platform library, libktmosaic.so.
#ifndef PLATFORM_PLT_H
#define PLATFORM_PLT_H

#include <stddef.h>

// Found by name between program and library, whatever else they hide.
#pragma GCC visibility push(default)
extern "C" {

// Brings up the platform library. Called once, before any other Plt_ function. The result is not
// documented by the maker and is not used.
int Plt_SysInit(void);

// Formats as snprintf() does: at most capacity bytes, terminating NUL included, into buffer.
// Returns the length that the whole text would have had, or a negative value.
int Plt_SNPrintf(char* buffer, size_t capacity, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Sets size bytes from target on to the byte value. Returns target.
void* Plt_MemSet(void* target, int value, size_t size);

// An object that the library looks up in the program which loads it; the program must define and
// export it, and never reads or writes it.
extern void* Plt_Log_TcpPrint;
}
#pragma GCC visibility pop

#endif  // PLATFORM_PLT_H
