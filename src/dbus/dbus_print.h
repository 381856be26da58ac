// The transport's diagnostic messages. Each is one coloured line on standard output, printed by one
// printf() call so that lines of different threads do not mix.
//
// Before a source file includes this header, it defines DBUS_SOURCE, the source name in its lines.
// A line also names an operation of the public interface; a helper function passes the name of the
// operation that called it.
#ifndef DBUS_DBUS_PRINT_H
#define DBUS_DBUS_PRINT_H

#include <stdio.h>

// All files of the transport print this one source name. The line number in a message belongs to
// the file that contains the named operation.
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
