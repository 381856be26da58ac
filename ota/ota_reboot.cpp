#include "ota_reboot.h"

#include "dbus/system_call.h"

void ota_reboot() {
    // The daemon may be there although the client has never found it, has given its connection up
    // or has lost the command with it; and without the restart a camera stays as it is. A second
    // request does no harm.
    if (system_call("reboot", OTA_REBOOT_TIMEOUT_MS) < 0) {
        system_call_reboot_unlocked();
    }
}
