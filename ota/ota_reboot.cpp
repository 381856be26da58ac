#include "ota_reboot.h"

#include "dbus/system_call.h"

void ota_reboot() {
    // When the daemon was away for too long the client has given its connection up for good; the
    // daemon may be back all the same, and without the restart a camera stays as it is.
    if (system_call("reboot", OTA_REBOOT_TIMEOUT_MS) == DBUS_WRITE_FAILED) {
        system_call_reboot_unlocked();
    }
}
