// The request to restart the device.
#ifndef OTA_OTA_REBOOT_H
#define OTA_OTA_REBOOT_H

#include <stdint.h>

#include "dbus/dbus_socket_common.h"

constexpr int32_t OTA_REBOOT_TIMEOUT_MS = 10000;

// The longest that ota_reboot() takes, rounded up: it may fall into a reconnection of the client,
// and behind the time-out a connection of its own is tried.
constexpr int32_t OTA_REBOOT_LONGEST_MS =
    OTA_REBOOT_TIMEOUT_MS + SYSTEM_CALL_DBUS_CONNECT_MS + 3000;

// Has "reboot" run by the system-call daemon; over a new connection when there is no answer,
// because the client's connection is lost or was never made. Blocks until the daemon answers, at
// most OTA_REBOOT_LONGEST_MS; takes the transport's locks. Whether the device will restart is not
// known when this returns.
void ota_reboot();

#endif  // OTA_OTA_REBOOT_H
