// A request/response transport over local stream sockets. ("dbus" is only this system's name for
// it; it is not the freedesktop message bus.)
//
// Every message, in both directions, is one SystemCallDbusMsg of 1236 bytes in host byte order. A
// server endpoint listens on "/tmp/dbus-<name>" and runs handlers; a client endpoint connects to
// the server's path, sends calls and matches each reply to its call by message id and method. One
// endpoint may have both roles. The service is a client of "system.call.daemon"; that daemon uses
// the server role.
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
constexpr int32_t SYSTEM_CALL_DBUS_CONNECT_MS = 5000;  // how long connecting is attempted

// Path of an endpoint's server socket, as a printf() format for the endpoint's name.
#define SYSTEM_CALL_DBUS_SOCKET_FORMAT "/tmp/dbus-%s"

enum SystemCallDbusMsgType : int32_t {
    SYSTEM_CALL_DBUS_TYPE_SIGNAL = 0,
    SYSTEM_CALL_DBUS_TYPE_METHOD = 1,  // a call, and also every reply
};

// Result codes of the transport and of the system-call client. 0 and above mean success.
enum SystemCallDbusResult : int32_t {
    DBUS_OK = 0,
    DBUS_CALL_FAILED = -1,        // no reply (time-out or lost), or a reply to no pending call
    DBUS_SOCKET_FAILED = -2,      // the socket could not be created
    DBUS_BIND_FAILED = -3,        // the server socket could not be bound
    DBUS_LISTEN_FAILED = -4,      // the server socket could not listen
    DBUS_CONNECT_FAILED = -5,     // no connection within the allowed attempts
    DBUS_WRITE_FAILED = -6,       // the record could not be written
    DBUS_NO_MEMORY = -8,          // an allocation failed
    DBUS_INVALID_ARGUMENT = -10,  // a record is null or too long, or no call is pending at all
    DBUS_NOT_PENDING = -11,       // this call is not in the list of pending calls
    DBUS_LOCK_NULL = -12,         // Dbus_Lock: the endpoint is null
    DBUS_UNLOCK_NULL = -13,       // Dbus_UnLock: the endpoint is null
    DBUS_DIRECTORY_FAILED = -15,  // "/tmp" could not be read
};

// One message as it is sent. Text fields are NUL-terminated within their size; unused bytes are 0.
struct SystemCallDbusMsg {
    uint32_t head;                            // SYSTEM_CALL_DBUS_HEAD
    int32_t id;                               // chosen by the caller; a reply repeats it
    char sender[SYSTEM_CALL_DBUS_NAME_SIZE];  // name of the sending endpoint
    char destination[SYSTEM_CALL_DBUS_NAME_SIZE];
    int32_t type;  // SystemCallDbusMsgType
    char method[SYSTEM_CALL_DBUS_NAME_SIZE];
    int32_t ret;   // in a reply: the handler's result
    uint32_t len;  // number of used bytes in data
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

// One handler of a server endpoint. Each message is handled on a separate thread, so a handler may
// run several times concurrently.
struct SystemCallDbusInterface {
    char name[SYSTEM_CALL_DBUS_NAME_SIZE];                  // compared with the message's method
    char signalMarker[SYSTEM_CALL_DBUS_MARKER_SIZE];        // if not empty: handles signal `name`
    void (*signalHandler)(const void* data, uint32_t len);  // may be null
    char methodMarker[SYSTEM_CALL_DBUS_NAME_SIZE];          // if not empty: handles method `name`
    // Writes at most outCap (1024) bytes to out. Returns the number of bytes written, or a negative
    // value on failure. May be null: the reply's ret is then -1.
    int32_t (*methodHandler)(const void* in, uint32_t inLen, void* out, uint32_t outCap);
};

// One call that waits for its reply. Exists only during one SystemCall_Dbus_Call_Method, from push
// to pop.
struct SystemCallDbusMethodMsgNode {
    SystemCallDbusMsg* call;
    SystemCallDbusMsg* reply;  // null until it arrives; guarded by mutex
    pthread_mutex_t mutex;
    pthread_cond_t condition;  // uses the monotonic clock
    SystemCallDbusMethodMsgNode* next;
};

// One accepted connection of a server endpoint; private to the transport.
struct DbusConnection;

// One endpoint. The owner fills in name, serverName and the interfaces between Alloc and Register,
// and does not change any field after that.
struct SystemCallDbusInfo {
    char name[SYSTEM_CALL_DBUS_NAME_SIZE];
    char serverName[SYSTEM_CALL_DBUS_NAME_SIZE];  // empty: no client role
    int32_t interfaceCount;                       // 0: no server role
    SystemCallDbusInterface* interfaces[SYSTEM_CALL_DBUS_MAX_INTERFACES];
    SystemCallDbusMethodMsgNode* pendingCalls;    // guarded by lock
    int32_t listenSocket;                         // 0: no socket
    int32_t connectionSocket;                     // 0: no socket, -1: lost; guarded by lock
    char socketPath[SYSTEM_CALL_DBUS_PATH_SIZE];  // bound path; empty: no file to remove
    pthread_t methodThread;
    std::atomic<bool> reading;  // the reader thread runs and reconnects a lost connection
    pthread_t listenThread;
    pthread_mutex_t lock;
    std::atomic<bool> stopping;   // set by UnRegister; makes every thread of the endpoint end
    DbusConnection* connections;  // accepted connections still in use; guarded by lock
    int32_t serverThreads;        // running connection and message threads; guarded by lock
    pthread_cond_t serverIdle;    // signalled when serverThreads reaches 0
};

// Allocates an endpoint with interfaceCount (0 to 256) zero-filled handler entries.
// When the count is out of range or no memory is available, prints that and returns null.
SystemCallDbusInfo* SystemCall_DbusInfo_Alloc(int32_t interfaceCount);

// Sets the entry's method and handler; the method name is truncated to the entry's size. Call
// before the endpoint is registered.
void SystemCall_DbusInterface_Set_Method(SystemCallDbusInterface* entry, const char* method,
                                         int32_t (*handler)(const void* in, uint32_t inLen,
                                                            void* out, uint32_t outCap));

// Frees the handler entries and the endpoint. The endpoint must not be registered; it may be null.
void SystemCall_DbusInfo_Free(SystemCallDbusInfo* info);

// Opens the roles of the endpoint. If it has handler entries, binds, listens and starts the listen
// thread. If it has a server name, connects (up to 100 attempts, 50 ms apart: about
// SYSTEM_CALL_DBUS_CONNECT_MS) and starts the reader thread. The reader thread blocks signals; when
// the connection is lost, it reconnects with the same limits. After a failure of Register nothing
// stays open. Returns DBUS_OK, DBUS_SOCKET_FAILED, DBUS_BIND_FAILED, DBUS_LISTEN_FAILED,
// DBUS_CONNECT_FAILED or DBUS_NO_MEMORY (a thread could not be started).
int32_t SystemCall_Dbus_Register(SystemCallDbusInfo* info);

// Closes both roles. Blocks until every thread of the endpoint has ended, including running
// handlers. No call may be in progress. Returns DBUS_OK.
int32_t SystemCall_Dbus_UnRegister(SystemCallDbusInfo* info);

// Makes one call. Blocks until the reply arrives or timeoutMs milliseconds (0 or less: 10000) have
// passed. Each reconnection of the endpoint, before the call is written and at its end, can add up
// to SYSTEM_CALL_DBUS_CONNECT_MS; the call is written to the server that the endpoint is connected
// to then. data may be null; dataLen is at most 1024. If result is not null, at most resultCapacity
// bytes of the reply's data are copied to it. If sent is not null, *sent is set to whether the
// whole record was written; if not, no server has received the call. Any number of threads may call
// concurrently. Takes the endpoint lock. Returns the reply's ret, or DBUS_CALL_FAILED,
// DBUS_WRITE_FAILED, DBUS_NO_MEMORY or DBUS_INVALID_ARGUMENT (the endpoint is null or has no client
// role, or data is too long).
int32_t SystemCall_Dbus_Call_Method(SystemCallDbusInfo* info, const char* destination,
                                    const char* method, const void* data, uint32_t dataLen,
                                    void* result, uint32_t resultCapacity, int32_t timeoutMs,
                                    bool* sent = nullptr);

// Sends a signal with at most 1024 bytes of data. A signal has no reply. Takes the endpoint lock.
// Returns the number of bytes written, DBUS_WRITE_FAILED or DBUS_INVALID_ARGUMENT.
int32_t SystemCall_Dbus_Send_Signal(SystemCallDbusInfo* info, const char* destination,
                                    const char* signal, const void* data, uint32_t dataLen);

// Lock and unlock the endpoint lock. Return DBUS_OK; for a null endpoint DBUS_LOCK_NULL or
// DBUS_UNLOCK_NULL.
int32_t Dbus_Lock(SystemCallDbusInfo* info);
int32_t Dbus_UnLock(SystemCallDbusInfo* info);

#endif  // DBUS_DBUS_SOCKET_COMMON_H
