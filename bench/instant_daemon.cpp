// A system-call daemon that runs no commands: every command succeeds at once, and the boot slot is
// A. So only the service's own part of a call is measured. Runs until it is killed.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "dbus/dbus_socket_common.h"
#include "dbus/system_call.h"

namespace {

int32_t succeed(const void* /*in*/, uint32_t /*inLen*/, void* out, uint32_t /*outCap*/) {
    memcpy(out, "0", 1);
    return 1;
}

int32_t running_slot(const void* /*in*/, uint32_t /*inLen*/, void* out, uint32_t /*outCap*/) {
    memcpy(out, "A\n", 2);
    return 2;
}

}  // namespace

int main() {
    SystemCallDbusInfo* const endpoint = SystemCall_DbusInfo_Alloc(2);
    if (endpoint == nullptr) {
        return 1;
    }
    snprintf(endpoint->name, sizeof(endpoint->name), "%s", SYSTEM_CALL_DAEMON_NAME);
    SystemCall_DbusInterface_Set_Method(endpoint->interfaces[0], SYSTEM_CALL_METHOD, succeed);
    SystemCall_DbusInterface_Set_Method(endpoint->interfaces[1], POPEN_CALL_METHOD, running_slot);
    if (SystemCall_Dbus_Register(endpoint) != DBUS_OK) {
        return 1;
    }
    while (true) {
        pause();
    }
}
