#include "otactl/trust.h"

#include <time.h>

#include "cli/error_line.h"
#include "cli/progress_line.h"
#include "otactl/commands.h"

int load_trust(TrustOptions options, Trust& trust) {
    const int result = read_settings(options);
    if (result != OTACTL_OK) {
        return result;
    }
    trust.needsSignature = !options.keyring.empty() && !options.unsignedToo;
    trust.rules = {.compatible = options.compatible,
                   .runningVersion = "",
                   .allowDowngrade = options.allowDowngrade};
    PackageStatus status;
    if (trust.needsSignature) {
        status = load_keyring(options.keyring, options.revocations, trust.keyring);
    }
    if (status.ok() && !options.versionFile.empty()) {
        status = read_running_version(options.versionFile, trust.rules.runningVersion);
    }
    return status.ok() ? static_cast<int>(OTACTL_OK) : refuse(status, trust.needsSignature);
}

PackageStatus read_manifest(const std::string& path, const Trust& trust, Manifest& manifest,
                            Signer& signer) {
    return trust.needsSignature
               ? read_signed_manifest(path, trust.keyring, time(nullptr), manifest, signer)
               : read_unsigned_manifest(path, manifest);
}

PackageStatus check_files(const Manifest& manifest, const std::string& directory,
                          const std::string& package, bool bar, std::vector<CheckedFile>& checked) {
    for (const PackageFile& file : package_files(manifest)) {
        const std::string& name = package.empty() ? file.name : package;
        ProgressLine line(bar, name + " checked", file.size);
        PackageStatus status = check_file(
            directory + name, file, [&line](uint64_t bytes) { line.show(bytes); },
            checked.emplace_back());
        if (!status.ok()) {
            return status;
        }
    }
    return {};
}

int refuse(const PackageStatus& status, bool needsSignature) {
    print_error(OTACTL, status.text);
    switch (status.result) {
        case PACKAGE_OK:
            return OTACTL_OK;
        case PACKAGE_UNREADABLE:
            return OTACTL_FAILED;
        case PACKAGE_NO_SERVICE:
            return OTACTL_NO_SERVICE;
        case PACKAGE_NOT_TRUSTED:
            return OTACTL_NOT_TRUSTED;
        case PACKAGE_DIFFERENT:
        case PACKAGE_UNSUITABLE:
        case PACKAGE_NO_PARTITION:
            return needsSignature ? OTACTL_NOT_TRUSTED : OTACTL_WRONG_USE;
        case PACKAGE_MISSING:
        case PACKAGE_MALFORMED:
            break;
    }
    return OTACTL_WRONG_USE;
}
