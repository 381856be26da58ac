#include "package/camera_rules.h"

#include <errno.h>
#include <string.h>

#include "package/files.h"
#include "package/modules.h"
#include "package/partition.h"
#include "package/version.h"

namespace {

constexpr size_t VERSION_FILE_MAX = 4096;  // bytes

PackageStatus unsuitable(const std::string& text) {
    return package_fault(PACKAGE_UNSUITABLE, text);
}

PackageStatus check_partition(const OtaPackageEntry& entry, const ManifestModule& module) {
    const int64_t size = partition_size(entry, open_partition(entry));
    if (size < 0) {
        return errno == ENOENT
                   ? package_fault(PACKAGE_NO_PARTITION,
                                   "module " + module.name + ": this camera has no such partition")
                   : package_fault(PACKAGE_UNREADABLE,
                                   "module " + module.name +
                                       ": cannot get the partition's size: " + strerror(errno));
    }
    if (module.size > static_cast<uint64_t>(size)) {
        return unsuitable("module " + module.name + " has " + std::to_string(module.size) +
                          " bytes, its partition " + std::to_string(size));
    }
    return {};
}

PackageStatus check_module(const Manifest& manifest, const ManifestModule& module) {
    const OtaPackageEntry* const entry = find_module(module.name);
    // find_module() also accepts a module type in decimal, which is not a valid name here.
    if (entry == nullptr || module.name != entry->partitionName) {
        return unsuitable("this camera has no module " + module.name + " (there are " +
                          module_names() + ")");
    }
    if (manifest.format == 1) {
        return {};
    }
    if (!manifest.combined() && module.file != entry->fileName) {
        return unsuitable("module " + module.name + " is in " + module.file +
                          ", this camera expects " + entry->fileName);
    }
    return check_partition(*entry, module);
}

}  // namespace

std::vector<PackageStatus> camera_objections(const Manifest& manifest, const CameraRules& rules) {
    std::vector<PackageStatus> objections;
    const bool hasHead = manifest.format > 1;
    if (hasHead && !rules.compatible.empty() && manifest.compatible != rules.compatible) {
        objections.push_back(unsuitable("the package is for " + manifest.compatible +
                                        ", this camera is a " + rules.compatible));
    }
    if (hasHead && !rules.runningVersion.empty() && !rules.allowDowngrade &&
        std::is_lt(compare_versions(manifest.version, rules.runningVersion))) {
        objections.push_back(unsuitable("the package's version " + manifest.version +
                                        " is below the running " + rules.runningVersion));
    }
    for (const ManifestModule& module : manifest.modules) {
        PackageStatus status = check_module(manifest, module);
        if (!status.ok()) {
            objections.push_back(std::move(status));
        }
    }
    return objections;
}

PackageStatus read_running_version(const std::string& path, std::string& version) {
    PackageStatus status = read_small_file(path, VERSION_FILE_MAX, FileKind::REGULAR, version);
    if (!status.ok()) {
        return status;
    }
    version.resize(std::min(version.find('\n'), version.size()));
    version.erase(version.find_last_not_of(" \t\r") + 1);
    return is_version(version)
               ? PackageStatus{}
               : package_fault(PACKAGE_MALFORMED, path + ": expected a version such as 2.7.1");
}
