// Whether this camera takes a package.
#ifndef PACKAGE_CAMERA_H
#define PACKAGE_CAMERA_H

#include <string>
#include <vector>

#include "package/manifest.h"
#include "package/status.h"

struct CameraRules {
    std::string compatible;      // the kind of this camera; empty: not asked
    std::string runningVersion;  // as package/version.h has it; empty: not asked
    bool allowDowngrade = false;
};

// Why this camera does not take the package: each is a PACKAGE_UNSUITABLE, or PACKAGE_UNREADABLE
// for a partition that cannot be looked at. Empty when it does: it is of the manifest's kind; the
// package's version is not below the running one (the same again is fine), unless downgrades are
// allowed; every module is in the package table, under the image name that stands there; its
// partition is there and at least as large as the image. Manifests of version 1 are asked about
// modules only. Opens the partitions, reads nothing from them.
std::vector<PackageStatus> camera_objections(const Manifest& manifest, const CameraRules& rules);

// Reads the version of the running system: the first line of its version file. Returns PACKAGE_OK,
// PACKAGE_MISSING, PACKAGE_UNREADABLE, or PACKAGE_MALFORMED when it is no version.
PackageStatus read_running_version(const std::string& path, std::string& version);

#endif  // PACKAGE_CAMERA_H
