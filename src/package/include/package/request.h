// Builds the upgrade request for a package and posts it to the service's queue.
#ifndef PACKAGE_REQUEST_H
#define PACKAGE_REQUEST_H

#include <string>
#include <vector>

#include "ota/ota_message.h"
#include "ota/ota_package.h"
#include "package/manifest.h"
#include "package/status.h"

// Fills in a request for a package with one file per image. `directory` is absolute and ends in
// "/". Returns PACKAGE_OK, or PACKAGE_MALFORMED when the directory is too long for a request or
// there are too many modules.
PackageStatus request_files(const std::string& directory,
                            const std::vector<const OtaPackageEntry*>& modules,
                            OtaMessage& message);

// Fills in a request for all modules of the combined package `file` in `directory`, which is
// absolute and ends in "/". All modules must be in the package table. Returns PACKAGE_OK, or
// PACKAGE_MALFORMED when the path is too long for a request.
PackageStatus request_combined(const std::string& directory, const std::string& file,
                               const Manifest& manifest, OtaMessage& message);

// Finds the service's queue. Returns PACKAGE_OK or PACKAGE_NO_SERVICE.
PackageStatus open_request_queue(int& queue);

// Posts a request without blocking. The service accepts any message type above 0. Returns
// PACKAGE_OK, PACKAGE_NO_SERVICE when the queue no longer exists, or PACKAGE_UNREADABLE when it is
// full or cannot be written.
PackageStatus post_request(int queue, const OtaMessage& message, long messageType);

// Removes a request of this type from the queue, without blocking. Returns whether it was still
// there: then the service has not received it and never will.
bool withdraw_request(int queue, long messageType);

#endif  // PACKAGE_REQUEST_H
