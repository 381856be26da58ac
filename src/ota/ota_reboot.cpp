#include "ota_reboot.h"

#include "dbus/system_call.h"

void ota_reboot() {
    // The daemon may be running although the client never found it or has given up its connection,
    // and only a restart brings the camera back into service. A command that may have reached the
    // daemon is not repeated, because a daemon that is only slow would run it twice.
    if (!system_call_reboot(OTA_REBOOT_TIMEOUT_MS)) {
        system_call_reboot_unlocked();
    }
}
