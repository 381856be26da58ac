// Client of the system-call daemon, which runs shell commands on the service's behalf.
#ifndef DBUS_SYSTEM_CALL_H
#define DBUS_SYSTEM_CALL_H

#include <stdint.h>

#include "dbus/dbus_socket_common.h"

// The daemon's endpoint, its two methods and the prefix of its socket's name in "/tmp".
#define SYSTEM_CALL_DAEMON_NAME "system.call.daemon"
#define SYSTEM_CALL_METHOD "system_call"
#define POPEN_CALL_METHOD "popen_call"
#define SYSTEM_CALL_DAEMON_SOCKET_PREFIX "dbus-" SYSTEM_CALL_DAEMON_NAME

// Names the client, waits up to about 10 s for the daemon's socket file, then connects (about 5 s
// more at the most). Takes the client mutex for the whole run.
// Returns DBUS_OK (also when already initialised), DBUS_CALL_FAILED (no daemon), DBUS_NO_MEMORY,
// DBUS_SOCKET_FAILED or DBUS_CONNECT_FAILED.
int32_t system_call_init();

// Disconnects. No call may be in progress. Takes the client mutex. Returns DBUS_OK.
int32_t system_call_exit();

// Returns 1 when the daemon's socket file is there, 0 when not, DBUS_DIRECTORY_FAILED when "/tmp"
// cannot be read.
int32_t systemCall_Check_DbusDaemon();

// One call to the daemon with input (at most 1023 characters) as its data; see
// SystemCall_Dbus_Call_Method for output, outputCapacity, timeoutMs, sent, blocking and results.
// DBUS_CALL_FAILED also when not initialised; DBUS_INVALID_ARGUMENT when input is null or too long.
int32_t call_dbus_method(const char* method, const char* input, void* output,
                         uint32_t outputCapacity, int32_t timeoutMs, bool* sent = nullptr);

// Runs cmd through the daemon (timeoutMs in milliseconds, 0 or less: 10000) and returns the leading
// decimal integer of its reply, which is the command's exit status, or a negative transport code. A
// reboot is announced with the caller's process id and name first.
int32_t system_call(const char* cmd, int32_t timeoutMs);

// Runs cmd through the daemon and copies outputSize bytes (at most 1024) of its output to output,
// zeros behind the output's end. Returns the number of bytes that the daemon produced, or a
// negative transport code, output then being untouched.
int32_t popen_call(const char* cmd, void* output, int32_t outputSize, int32_t timeoutMs);

// system_call() of "reboot". Returns whether the command was sent, whatever became of it then:
// false means that the daemon certainly does not have it.
bool system_call_reboot(int32_t timeoutMs);

// Sends "reboot" to the daemon over a separate connection, with system calls alone, so that it can
// be used in a signal handler whatever locks are held. The record is prepared by
// system_call_init(), whether that succeeds or not. A full backlog is retried, for
// SYSTEM_CALL_DBUS_CONNECT_MS at the most; does not wait for the reply. Returns DBUS_OK,
// DBUS_SOCKET_FAILED, DBUS_CONNECT_FAILED or DBUS_WRITE_FAILED.
int32_t system_call_reboot_unlocked();

#endif  // DBUS_SYSTEM_CALL_H
