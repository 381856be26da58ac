// The transport's diagnostic lines: one coloured line each on standard output, printed in one call
// so that lines of different threads do not mix.
//
// A source file defines DBUS_SOURCE, the name that its lines carry, before it includes this.
#ifndef DBUS_DBUS_PRINT_H
#define DBUS_DBUS_PRINT_H

#include <stdio.h>

#define DBUS_PRINT(colour, kind, text, ...)                                                       \
    printf("\033[" colour "mDBUS: " kind ": [%s:%s:%d] " text "\033[0m\n", DBUS_SOURCE, __func__, \
           __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define DBUS_ERROR(text, ...) DBUS_PRINT("31", "ERROR", text __VA_OPT__(, ) __VA_ARGS__)
#define DBUS_WARN(text, ...) DBUS_PRINT("33", "WARN", text __VA_OPT__(, ) __VA_ARGS__)
#define DBUS_INFO(text, ...) DBUS_PRINT("32", "INFO", text __VA_OPT__(, ) __VA_ARGS__)
#define DBUS_DEBUG(text, ...) DBUS_PRINT("36", "DEBUG", text __VA_OPT__(, ) __VA_ARGS__)

#endif  // DBUS_DBUS_PRINT_H
