// The transport's diagnostic lines: one coloured line each on standard output, printed in one call
// so that lines of different threads do not mix.
//
// A source file defines DBUS_SOURCE, the name that its lines carry, before it includes this. Lines
// name the operation that a caller knows: a helper prints in the name of the one that it works for.
#ifndef DBUS_DBUS_PRINT_H
#define DBUS_DBUS_PRINT_H

#include <stdio.h>

// The transport is one thing to those who read its lines, in however many files it is written. A
// source line number is therefore one of the file that holds the operation.
#define DBUS_TRANSPORT "dbus/dbus_socket_common"

#define DBUS_PRINT_AS(operation, colour, kind, text, ...)                                          \
    printf("\033[" colour "mDBUS: " kind ": [%s:%s:%d] " text "\033[0m\n", DBUS_SOURCE, operation, \
           __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define DBUS_ERROR_AS(operation, text, ...) \
    DBUS_PRINT_AS(operation, "31", "ERROR", text __VA_OPT__(, ) __VA_ARGS__)
#define DBUS_WARN_AS(operation, text, ...) \
    DBUS_PRINT_AS(operation, "33", "WARN", text __VA_OPT__(, ) __VA_ARGS__)

#define DBUS_INFO_AS(operation, text, ...) \
    DBUS_PRINT_AS(operation, "32", "INFO", text __VA_OPT__(, ) __VA_ARGS__)

#define DBUS_ERROR(text, ...) DBUS_ERROR_AS(__func__, text __VA_OPT__(, ) __VA_ARGS__)
#define DBUS_WARN(text, ...) DBUS_WARN_AS(__func__, text __VA_OPT__(, ) __VA_ARGS__)
#define DBUS_INFO(text, ...) DBUS_INFO_AS(__func__, text __VA_OPT__(, ) __VA_ARGS__)
#define DBUS_DEBUG(text, ...) \
    DBUS_PRINT_AS(__func__, "36", "DEBUG", text __VA_OPT__(, ) __VA_ARGS__)

#endif  // DBUS_DBUS_PRINT_H
