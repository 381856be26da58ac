// The request to restart the device.
#ifndef OTA_OTA_REBOOT_H
#define OTA_OTA_REBOOT_H

#include <stdint.h>

#include "dbus/dbus_socket_common.h"

constexpr int32_t OTA_REBOOT_TIMEOUT_MS = 10000;

// The longest that ota_reboot() takes, rounded up: the call may stand behind a reconnection of the
// client before it is written and after its time-out. One that could not be written has no
// time-out, and a separate connection is tried for SYSTEM_CALL_DBUS_CONNECT_MS at the most.
constexpr int32_t OTA_REBOOT_LONGEST_MS =
    OTA_REBOOT_TIMEOUT_MS + 2 * SYSTEM_CALL_DBUS_CONNECT_MS + 3000;

// Has "reboot" run by the system-call daemon. A command that certainly did not reach it, because
// the client's connection is lost or was never made, is sent once more over a separate connection;
// one that was sent and is not answered in time is not. Blocks until the daemon answers, at most
// OTA_REBOOT_LONGEST_MS; takes the transport's locks. Whether the device will restart is not known
// when this returns.
void ota_reboot();

#endif  // OTA_OTA_REBOOT_H
