// Decides whether a package is suitable for this camera.
#ifndef PACKAGE_CAMERA_RULES_H
#define PACKAGE_CAMERA_RULES_H

#include <string>
#include <vector>

#include "package/manifest.h"
#include "package/status.h"

struct CameraRules {
    std::string compatible;      // the hardware type of this camera; empty: not checked
    std::string runningVersion;  // format as in package/version.h; empty: not checked
    bool allowDowngrade = false;
};

// Returns every reason why this camera does not accept the package: PACKAGE_UNSUITABLE,
// PACKAGE_NO_PARTITION, or PACKAGE_UNREADABLE for a partition whose size cannot be determined. The
// list is empty when the camera accepts the package, that is, when all of this holds:
// - the camera has the hardware type that the manifest names;
// - the package's version is not lower than the running version (an equal version is accepted), or
//   downgrades are allowed;
// - every module is in the package table and has the image name of that row;
// - the module's partition exists and is at least as large as the image.
// For a manifest of version 1 only the module names are checked. Opens the partitions, but reads
// nothing from them.
std::vector<PackageStatus> camera_objections(const Manifest& manifest, const CameraRules& rules);

// Reads the version of the running system: the first line of its version file. Returns PACKAGE_OK,
// PACKAGE_MISSING, PACKAGE_UNREADABLE, or PACKAGE_MALFORMED when that line is not a version.
PackageStatus read_running_version(const std::string& path, std::string& version);

#endif  // PACKAGE_CAMERA_RULES_H
