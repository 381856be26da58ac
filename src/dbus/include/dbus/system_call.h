// Client of the system-call daemon, which runs shell commands for the service.
#ifndef DBUS_SYSTEM_CALL_H
#define DBUS_SYSTEM_CALL_H

#include <stdint.h>

#include "dbus/dbus_socket_common.h"

// The name of the daemon's endpoint, its two methods, and the prefix of its socket's file name in
// "/tmp".
#define SYSTEM_CALL_DAEMON_NAME "system.call.daemon"
#define SYSTEM_CALL_METHOD "system_call"
#define POPEN_CALL_METHOD "popen_call"
#define SYSTEM_CALL_DAEMON_SOCKET_PREFIX "dbus-" SYSTEM_CALL_DAEMON_NAME

// Chooses the client's name, waits up to about 10 s for the daemon's socket file, then connects (up
// to about 5 s more). Holds the client mutex until it returns.
// Returns DBUS_OK (also when already initialised), DBUS_CALL_FAILED (no daemon), DBUS_NO_MEMORY,
// DBUS_SOCKET_FAILED or DBUS_CONNECT_FAILED.
int32_t system_call_init();

// Disconnects from the daemon. No call may be in progress. Takes the client mutex. Returns DBUS_OK.
int32_t system_call_exit();

// Returns 1 when the daemon's socket file exists, 0 when it does not, and DBUS_DIRECTORY_FAILED
// when
// "/tmp" cannot be read.
int32_t systemCall_Check_DbusDaemon();

// Makes one call to the daemon with input (at most 1023 characters) as its data. For output,
// outputCapacity, timeoutMs, sent, blocking and results see SystemCall_Dbus_Call_Method. Also
// returns DBUS_CALL_FAILED when the client is not initialised, and DBUS_INVALID_ARGUMENT when input
// is null or too long.
int32_t call_dbus_method(const char* method, const char* input, void* output,
                         uint32_t outputCapacity, int32_t timeoutMs, bool* sent = nullptr);

// Makes the daemon run cmd (timeoutMs in milliseconds, 0 or less: 10000). Returns the leading
// decimal integer of the reply, which is the command's exit status, or a negative transport code.
// Before a "reboot" command, prints the process id and name of the caller.
int32_t system_call(const char* cmd, int32_t timeoutMs);

// Makes the daemon run cmd and copies outputSize bytes (at most 1024) of the command's output to
// output; bytes after the end of the command's output are 0. Returns the number of bytes that the
// daemon produced, or a negative transport code; output is then unchanged.
int32_t popen_call(const char* cmd, void* output, int32_t outputSize, int32_t timeoutMs);

// Calls system_call("reboot"). Returns whether the command was sent, whatever its result: false
// means that the daemon certainly did not receive it.
bool system_call_reboot(int32_t timeoutMs);

// Sends "reboot" to the daemon over a separate connection. Uses only system calls and no locks, so
// it may be called in a signal handler. system_call_init() must have been called before, but need
// not have succeeded. While the daemon's backlog is full, retries for at most
// SYSTEM_CALL_DBUS_CONNECT_MS. Does not wait for the reply. Returns DBUS_OK, DBUS_SOCKET_FAILED,
// DBUS_CONNECT_FAILED or DBUS_WRITE_FAILED.
int32_t system_call_reboot_unlocked();

#endif  // DBUS_SYSTEM_CALL_H
