// The upgrade procedure: carries one request out to the end.
#ifndef OTA_OTA_UPGRADE_H
#define OTA_OTA_UPGRADE_H

#include "ota/ota_message.h"

// Stops the camera's applications, writes the requested modules, records the outcome, switches the
// boot slot and deletes the package after a success, removes the message queue queueId, asks for a
// reboot and ends the process with 0. Main thread only; takes as long as flash and daemon do.
[[noreturn]] void upgrade_handler(int queueId, const OtaMessage& message);

#endif  // OTA_OTA_UPGRADE_H
