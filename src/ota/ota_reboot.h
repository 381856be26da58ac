// The request to restart the device.
#ifndef OTA_OTA_REBOOT_H
#define OTA_OTA_REBOOT_H

#include <stdint.h>

#include "dbus/dbus_socket_common.h"

constexpr int32_t OTA_REBOOT_TIMEOUT_MS = 10000;

// Upper bound of the time for which ota_reboot() blocks, rounded up. The client may have to
// reconnect before it writes the command and again after the command's time-out. If the command
// cannot be written, the time-out does not apply; the attempt over a separate connection then takes
// at most SYSTEM_CALL_DBUS_CONNECT_MS.
constexpr int32_t OTA_REBOOT_LONGEST_MS =
    OTA_REBOOT_TIMEOUT_MS + 2 * SYSTEM_CALL_DBUS_CONNECT_MS + 3000;

// Asks the system-call daemon to run "reboot". If the command certainly did not reach the daemon,
// because the client's connection is lost or was never made, sends it once more over a separate
// connection. A command that was sent but not answered in time is not repeated. Blocks until the
// daemon answers, at most OTA_REBOOT_LONGEST_MS; takes the transport's locks. The caller does not
// learn whether the device will restart.
void ota_reboot();

#endif  // OTA_OTA_REBOOT_H
