// The list of calls of a client endpoint that wait for their replies. An entry is identified by the
// message id together with the method name. Every operation takes the endpoint lock. The mutex of
// an entry is locked after the endpoint lock, or without it by the waiting thread; never before it.
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

// Appends an entry that contains a copy of msg.
// Returns DBUS_OK, DBUS_INVALID_ARGUMENT (null) or DBUS_NO_MEMORY.
int32_t SystemCall_Dbus_Method_Msg_Push(SystemCallDbusInfo* info, const SystemCallDbusMsg* msg);

// Attaches a copy of the reply to the entry of its call.
// Returns DBUS_OK; DBUS_INVALID_ARGUMENT (reply is null, or no call is pending at all);
// DBUS_CALL_FAILED (the reply's call is not pending or already has a reply, or no memory is
// available).
int32_t SystemCall_Dbus_Method_Msg_Result(SystemCallDbusInfo* info, const SystemCallDbusMsg* reply);

// Wakes the thread that waits for this reply, if its call is pending.
void SystemCall_Dbus_Method_Wakeup(SystemCallDbusInfo* info, const SystemCallDbusMsg* reply);

// Blocks until the call has its reply or timeoutMs milliseconds (0 or less: 10000) have passed. The
// time is measured on the monotonic clock, so setting the system clock does not change it. The
// endpoint lock is not held while waiting. Only the thread that pushed the call may wait for it and
// pop it. Returns a MethodWaitResult, DBUS_INVALID_ARGUMENT (no call is pending at all) or
// DBUS_NOT_PENDING.
int32_t SystemCall_Dbus_Method_Wait(SystemCallDbusInfo* info, const SystemCallDbusMsg* call,
                                    int32_t timeoutMs);

// Removes the entry of the call and frees it. If the entry has a reply, copies it to `reply`.
// Returns a MethodPopResult, DBUS_INVALID_ARGUMENT (an argument is null, or no call is pending at
// all) or DBUS_NOT_PENDING.
int32_t SystemCall_Dbus_Method_Msg_Pop(SystemCallDbusInfo* info, const SystemCallDbusMsg* call,
                                       SystemCallDbusMsg* reply);

#endif  // DBUS_PENDING_CALLS_H
