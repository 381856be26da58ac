// The calls of a client endpoint that wait for their replies. An entry is found by the message id
// and the method name together. Every operation takes the endpoint lock; an entry's own mutex is
// only ever taken after it, or alone by the waiter.
#ifndef DBUS_PENDING_CALLS_H
#define DBUS_PENDING_CALLS_H

#include "dbus/dbus_socket_common.h"

enum MethodWaitResult : int32_t {
    METHOD_WAIT_REPLIED = 0,
    METHOD_WAIT_TIMED_OUT = 1,
};

enum MethodPopResult : int32_t {
    METHOD_POP_NO_REPLY = 0,
    METHOD_POP_REPLIED = 1,
};

// Appends an entry that holds a copy of msg.
// Returns DBUS_OK, DBUS_INVALID_ARGUMENT (null) or DBUS_NO_MEMORY.
int32_t SystemCall_Dbus_Method_Msg_Push(SystemCallDbusInfo* info, const SystemCallDbusMsg* msg);

// Attaches a copy of the reply to its entry.
// Returns DBUS_OK; DBUS_INVALID_ARGUMENT (null, or no call is pending); DBUS_CALL_FAILED (nobody
// waits for it, it has a reply already, or memory is short).
int32_t SystemCall_Dbus_Method_Msg_Result(SystemCallDbusInfo* info, const SystemCallDbusMsg* reply);

// Wakes the caller that waits for this reply, if there is one.
void SystemCall_Dbus_Method_Wakeup(SystemCallDbusInfo* info, const SystemCallDbusMsg* reply);

// Blocks until the call has its reply or timeoutMs (0 or less: 10000) have passed on the monotonic
// clock, so that a clock set meanwhile neither cuts nor stretches the wait. The endpoint lock is
// not held while waiting. Only the thread that pushed the call may wait for it and pop it.
// Returns a MethodWaitResult, DBUS_INVALID_ARGUMENT (no call is pending) or DBUS_NOT_PENDING.
int32_t SystemCall_Dbus_Method_Wait(SystemCallDbusInfo* info, const SystemCallDbusMsg* call,
                                    int32_t timeoutMs);

// Takes the call's entry out and frees it; a reply is copied to `reply`.
// Returns a MethodPopResult, DBUS_INVALID_ARGUMENT (null, or no call is pending) or
// DBUS_NOT_PENDING.
int32_t SystemCall_Dbus_Method_Msg_Pop(SystemCallDbusInfo* info, const SystemCallDbusMsg* call,
                                       SystemCallDbusMsg* reply);

#endif  // DBUS_PENDING_CALLS_H
