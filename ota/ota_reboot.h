// The request to restart the device.
#ifndef OTA_OTA_REBOOT_H
#define OTA_OTA_REBOOT_H

#include <stdint.h>

constexpr int32_t OTA_REBOOT_TIMEOUT_MS = 10000;

// Has "reboot" run by the system-call daemon, over a new connection when the client's is lost.
// Blocks until it answers, at most about OTA_REBOOT_TIMEOUT_MS and 5 s more while the client
// reconnects; takes the transport's locks. Whether the device will restart is not known when this
// returns.
void ota_reboot();

#endif  // OTA_OTA_REBOOT_H
