#include "ota_reboot.h"

#include "dbus/system_call.h"

void ota_reboot() {
    // The daemon may be there although the client has never found it or has given its connection
    // up, and without the restart a camera stays as it is. What may have reached the daemon is not
    // repeated: one that is only slow would run it twice.
    if (!system_call_reboot(OTA_REBOOT_TIMEOUT_MS)) {
        system_call_reboot_unlocked();
    }
}
