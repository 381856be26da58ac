// The upgrade procedure: processes one upgrade request from start to end.
#ifndef OTA_OTA_UPGRADE_H
#define OTA_OTA_UPGRADE_H

#include "ota/ota_message.h"

// Stops the camera's applications, writes the requested modules and records the outcome. After a
// success, also switches the boot slot and deletes the package. Then removes the message queue
// queueId, requests a reboot and ends the process with status 0. Call on the main thread only;
// blocks for as long as the flash and the system-call daemon need.
[[noreturn]] void upgrade_handler(int queueId, const OtaMessage& message);

#endif  // OTA_OTA_UPGRADE_H
