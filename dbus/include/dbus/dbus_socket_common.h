// A request/response transport over local stream sockets. ("dbus" is this system's own word for
// it; it is not the freedesktop message bus.)
//
// Every message, in both directions, is one SystemCallDbusMsg of 1236 bytes in host byte order. A
// server endpoint listens on "/tmp/dbus-<name>" and runs handlers; a client endpoint connects to
// the server's path, sends calls and matches each reply to its caller by message id and method.
// One endpoint may be both. The service is a client of "system.call.daemon"; the server half is
// what that daemon is made of.
//
// Diagnostics go to standard output, one coloured line each.
#ifndef DBUS_DBUS_SOCKET_COMMON_H
#define DBUS_DBUS_SOCKET_COMMON_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include <atomic>

constexpr uint32_t SYSTEM_CALL_DBUS_HEAD = 0x5AA55AA5;
constexpr uint32_t SYSTEM_CALL_DBUS_NAME_SIZE = 64;    // bytes, terminator included
constexpr uint32_t SYSTEM_CALL_DBUS_DATA_SIZE = 1024;  // bytes
constexpr uint32_t SYSTEM_CALL_DBUS_MARKER_SIZE = 32;  // bytes, terminator included
constexpr uint32_t SYSTEM_CALL_DBUS_PATH_SIZE = 128;   // bytes, terminator included
constexpr int32_t SYSTEM_CALL_DBUS_MAX_INTERFACES = 256;
constexpr int32_t SYSTEM_CALL_DBUS_DEFAULT_TIMEOUT_MS = 10000;
constexpr int32_t SYSTEM_CALL_DBUS_CONNECT_MS = 5000;  // for which a connection is tried

// Where an endpoint's server socket stands: the format takes the endpoint's name.
#define SYSTEM_CALL_DBUS_SOCKET_FORMAT "/tmp/dbus-%s"

enum SystemCallDbusMsgType : int32_t {
    SYSTEM_CALL_DBUS_TYPE_SIGNAL = 0,
    SYSTEM_CALL_DBUS_TYPE_METHOD = 1,  // a call, and also every reply
};

// Result codes of the transport and of the system-call client. 0 and above mean success.
enum SystemCallDbusResult : int32_t {
    DBUS_OK = 0,
    DBUS_CALL_FAILED = -1,        // no reply: time-out, or reply lost; a reply nobody waits for
    DBUS_SOCKET_FAILED = -2,      // the socket could not be created
    DBUS_BIND_FAILED = -3,        // the server socket could not be bound
    DBUS_LISTEN_FAILED = -4,      // the server socket could not listen
    DBUS_CONNECT_FAILED = -5,     // no connection within the retry budget
    DBUS_WRITE_FAILED = -6,       // the record could not be written
    DBUS_NO_MEMORY = -8,          // an allocation failed
    DBUS_INVALID_ARGUMENT = -10,  // a record is null, too long, or no call is pending at all
    DBUS_NOT_PENDING = -11,       // the call to take out is not in the list
    DBUS_LOCK_NULL = -12,         // lock asked of no endpoint
    DBUS_UNLOCK_NULL = -13,       // unlock asked of no endpoint
    DBUS_DIRECTORY_FAILED = -15,  // "/tmp" could not be read
};

// One message on the wire. Text fields end in a NUL within their width; bytes that are not filled
// are zero.
struct SystemCallDbusMsg {
    uint32_t head;                            // SYSTEM_CALL_DBUS_HEAD
    int32_t id;                               // chosen by the caller; a reply carries its call's
    char sender[SYSTEM_CALL_DBUS_NAME_SIZE];  // name of the sending endpoint
    char destination[SYSTEM_CALL_DBUS_NAME_SIZE];
    int32_t type;  // SystemCallDbusMsgType
    char method[SYSTEM_CALL_DBUS_NAME_SIZE];
    int32_t ret;   // reply only: the handler's result
    uint32_t len;  // meaningful bytes in data
    uint8_t data[SYSTEM_CALL_DBUS_DATA_SIZE];
};
static_assert(sizeof(SystemCallDbusMsg) == 1236);
static_assert(offsetof(SystemCallDbusMsg, sender) == 8);
static_assert(offsetof(SystemCallDbusMsg, destination) == 72);
static_assert(offsetof(SystemCallDbusMsg, type) == 136);
static_assert(offsetof(SystemCallDbusMsg, method) == 140);
static_assert(offsetof(SystemCallDbusMsg, ret) == 204);
static_assert(offsetof(SystemCallDbusMsg, len) == 208);
static_assert(offsetof(SystemCallDbusMsg, data) == 212);

// One handler of a server endpoint. Handlers run on a thread of their own per message, so one
// handler may run several times at once.
struct SystemCallDbusInterface {
    char name[SYSTEM_CALL_DBUS_NAME_SIZE];                  // matched against the message's method
    char signalMarker[SYSTEM_CALL_DBUS_MARKER_SIZE];        // not empty: handles the signal `name`
    void (*signalHandler)(const void* data, uint32_t len);  // may be null
    char methodMarker[SYSTEM_CALL_DBUS_NAME_SIZE];          // not empty: handles the method `name`
    // Writes at most outCap (1024) bytes to out and returns how many, or a negative value on
    // failure. May be null: the caller then gets -1.
    int32_t (*methodHandler)(const void* in, uint32_t inLen, void* out, uint32_t outCap);
};

// One call that waits for its reply. Lives from push to pop, inside one Call_Method.
struct SystemCallDbusMethodMsgNode {
    SystemCallDbusMsg* call;
    SystemCallDbusMsg* reply;  // null until it arrives; guarded by mutex
    pthread_mutex_t mutex;
    pthread_cond_t condition;  // on the monotonic clock
    SystemCallDbusMethodMsgNode* next;
};

// One accepted connection of a server endpoint; private to the transport.
struct DbusConnection;

// One endpoint. The owner fills name, serverName and the interfaces between Alloc and Register and
// touches nothing after that.
struct SystemCallDbusInfo {
    char name[SYSTEM_CALL_DBUS_NAME_SIZE];
    char serverName[SYSTEM_CALL_DBUS_NAME_SIZE];  // empty: no client role
    int32_t interfaceCount;                       // 0: no server role
    SystemCallDbusInterface* interfaces[SYSTEM_CALL_DBUS_MAX_INTERFACES];
    SystemCallDbusMethodMsgNode* pendingCalls;    // guarded by lock
    int32_t listenSocket;                         // 0: none
    int32_t connectionSocket;                     // 0: none, -1: lost for good; guarded by lock
    char socketPath[SYSTEM_CALL_DBUS_PATH_SIZE];  // as bound; empty: nothing to remove
    pthread_t methodThread;
    std::atomic<bool> reading;  // the reader thread runs, and replaces a connection that is lost
    pthread_t listenThread;
    pthread_mutex_t lock;
    std::atomic<bool> stopping;   // set by UnRegister; every thread of the endpoint ends on it
    DbusConnection* connections;  // accepted and still referenced; guarded by lock
    int32_t serverThreads;        // connection and message threads alive; guarded by lock
    pthread_cond_t serverIdle;    // signalled when serverThreads reaches 0
};

// Allocates an endpoint with interfaceCount (0 to 256) zero-filled handler entries.
// Returns null, with a line printed, when the count is out of range or memory is short.
SystemCallDbusInfo* SystemCall_DbusInfo_Alloc(int32_t interfaceCount);

// Makes the entry handle a method; its name is cut to the entry's width. Not once it is registered.
void SystemCall_DbusInterface_Set_Method(SystemCallDbusInterface* entry, const char* method,
                                         int32_t (*handler)(const void* in, uint32_t inLen,
                                                            void* out, uint32_t outCap));

// Frees the handler entries and the endpoint, which must not be registered. Null is ignored.
void SystemCall_DbusInfo_Free(SystemCallDbusInfo* info);

// Opens the endpoint's roles: binds, listens and starts the listen thread when it has handler
// entries; connects (up to 100 attempts, 50 ms apart: about SYSTEM_CALL_DBUS_CONNECT_MS) and starts
// the reader thread when it has a server name. The reader takes no signals, and connects anew, as
// long as that, whenever the server has gone. Whatever fails, nothing stays open.
// Returns DBUS_OK, DBUS_SOCKET_FAILED, DBUS_BIND_FAILED, DBUS_LISTEN_FAILED, DBUS_CONNECT_FAILED or
// DBUS_NO_MEMORY (a thread could not be started).
int32_t SystemCall_Dbus_Register(SystemCallDbusInfo* info);

// Closes both roles. Blocks until every thread of the endpoint has ended, running handlers
// included. No call may be in progress. Returns DBUS_OK.
int32_t SystemCall_Dbus_UnRegister(SystemCallDbusInfo* info);

// One call, blocking until its reply or the time-out (milliseconds; 0 or less: 10000), with up to
// SYSTEM_CALL_DBUS_CONNECT_MS more for each reconnection that it falls into, at its begin (it is
// written to the server that the endpoint reaches then) and at its end. data may be null; dataLen
// at most 1024. When result is not null, the reply's data, at most resultCapacity bytes of it, is
// copied there. When sent is not null, it receives whether the record was written whole: a call
// that was not is one that no server has. Any number of threads may call at once. Takes the
// endpoint lock. Returns the reply's ret, or DBUS_CALL_FAILED, DBUS_WRITE_FAILED, DBUS_NO_MEMORY or
// DBUS_INVALID_ARGUMENT (no endpoint, one without a client role, or data too long).
int32_t SystemCall_Dbus_Call_Method(SystemCallDbusInfo* info, const char* destination,
                                    const char* method, const void* data, uint32_t dataLen,
                                    void* result, uint32_t resultCapacity, int32_t timeoutMs,
                                    bool* sent = nullptr);

// Sends a signal, at most 1024 bytes of data; nothing comes back. Takes the endpoint lock.
// Returns the bytes written, DBUS_WRITE_FAILED or DBUS_INVALID_ARGUMENT.
int32_t SystemCall_Dbus_Send_Signal(SystemCallDbusInfo* info, const char* destination,
                                    const char* signal, const void* data, uint32_t dataLen);

// The endpoint lock. Return DBUS_OK, or DBUS_LOCK_NULL / DBUS_UNLOCK_NULL for a null endpoint.
int32_t Dbus_Lock(SystemCallDbusInfo* info);
int32_t Dbus_UnLock(SystemCallDbusInfo* info);

#endif  // DBUS_DBUS_SOCKET_COMMON_H
