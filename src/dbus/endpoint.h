// Declarations that the source files of the transport share: opening and closing an endpoint's two
// roles, and their constants.
#ifndef DBUS_ENDPOINT_H
#define DBUS_ENDPOINT_H

#include <sys/un.h>

#include "dbus/dbus_socket_common.h"

// Number of attempts to connect to a server, and the pause after each failed attempt.
constexpr int32_t DBUS_CONNECT_ATTEMPTS = 100;
constexpr int32_t DBUS_CONNECT_PAUSE_MS = SYSTEM_CALL_DBUS_CONNECT_MS / DBUS_CONNECT_ATTEMPTS;

// The operation name in messages about opening either role.
constexpr const char* DBUS_REGISTER = "SystemCall_Dbus_Register";

constexpr size_t THREAD_NAME_SIZE = 16;  // bytes, terminator included: prctl(2), PR_SET_NAME

// Returns the socket address of the server with this name. A path that is too long for sun_path is
// truncated.
sockaddr_un dbus_server_address(const char* serverName);

// Sets the name of the calling thread, truncated to 15 characters.
void dbus_name_thread(const char* name);

// Opens the client role: connects and starts the reader thread.
// Returns DBUS_OK, DBUS_SOCKET_FAILED, DBUS_CONNECT_FAILED or DBUS_NO_MEMORY; nothing stays open
// after a failure.
int32_t dbus_client_open(SystemCallDbusInfo* info);

// Ends the reader thread, waits for it and closes the connection. info->stopping must be set.
void dbus_client_close(SystemCallDbusInfo* info);

// Opens the server role: binds, listens and starts the listen thread.
// Returns DBUS_OK, DBUS_SOCKET_FAILED, DBUS_BIND_FAILED, DBUS_LISTEN_FAILED or DBUS_NO_MEMORY;
// nothing stays open after a failure.
int32_t dbus_server_open(SystemCallDbusInfo* info);

// Ends the listen thread and every connection, waits for all threads of the role, including running
// handlers, and removes the socket file. info->stopping must be set.
void dbus_server_close(SystemCallDbusInfo* info);

#endif  // DBUS_ENDPOINT_H
