#include "ota_reboot.h"

#include "dbus/system_call.h"

void ota_reboot() {
    system_call("reboot", OTA_REBOOT_TIMEOUT_MS);
}
