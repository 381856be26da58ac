// A simulated system-call daemon on the real server side of the transport.
#ifndef TESTS_SUPPORT_SIMULATED_DAEMON_H
#define TESTS_SUPPORT_SIMULATED_DAEMON_H

#include <sys/un.h>

#include "base/ignore_result.h"
#include "base/unique_fd.h"
#include "dbus/dbus_socket_common.h"
#include "dbus/system_call.h"
#include "test.h"

constexpr sockaddr_un DAEMON_ADDRESS = {AF_UNIX, "/tmp/" SYSTEM_CALL_DAEMON_SOCKET_PREFIX};

// Returns a socket that listens at the daemon's address; the test handles its connections.
inline corvo::UniqueFd listening_as_daemon() {
    remove(DAEMON_ADDRESS.sun_path);
    corvo::UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto* const address = reinterpret_cast<const sockaddr*>(&DAEMON_ADDRESS);
    EXPECT_EQ(bind(listener.get(), address, sizeof(DAEMON_ADDRESS)), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    return listener;
}

// Returns more connections to a socket that listens at the daemon's address than its backlog takes.
inline std::vector<corvo::UniqueFd> fill_backlog() {
    std::vector<corvo::UniqueFd> waiting(3);
    for (corvo::UniqueFd& fd : waiting) {
        fd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
        corvo::ignore_result(connect(fd.get(), reinterpret_cast<const sockaddr*>(&DAEMON_ADDRESS),
                                     sizeof(DAEMON_ADDRESS)));
    }
    return waiting;
}

class SimulatedDaemon {
  public:
    using Handler = decltype(SystemCallDbusInterface::methodHandler);

    // Serves both method calls, and a third name that has a handler for signals instead.
    SimulatedDaemon(Handler systemCall, Handler popenCall,
                    void (*signal)(const void* data, uint32_t size) = nullptr)
        : info_(SystemCall_DbusInfo_Alloc(3)) {
        if (info_ == nullptr) {
            return;
        }
        snprintf(info_->name, sizeof(info_->name), "%s", SYSTEM_CALL_DAEMON_NAME);
        SystemCallDbusInterface** const entries = info_->interfaces;
        SystemCall_DbusInterface_Set_Method(entries[0], SYSTEM_CALL_METHOD, systemCall);
        SystemCall_DbusInterface_Set_Method(entries[1], POPEN_CALL_METHOD, popenCall);
        SystemCall_DbusInterface_Set_Method(entries[2], "entry of a long name", nullptr);
        entries[2]->signalMarker[0] = 's';
        entries[2]->signalHandler = signal;
        serves_ = SystemCall_Dbus_Register(info_) == DBUS_OK;
    }
    ~SimulatedDaemon() {
        if (serves_) {
            SystemCall_Dbus_UnRegister(info_);
        }
        SystemCall_DbusInfo_Free(info_);
    }
    SimulatedDaemon(const SimulatedDaemon&) = delete;
    SimulatedDaemon& operator=(const SimulatedDaemon&) = delete;

  private:
    SystemCallDbusInfo* info_;
    bool serves_ = false;
};

#endif  // TESTS_SUPPORT_SIMULATED_DAEMON_H
