#include "otactl/restore.h"

#include <errno.h>
#include <string.h>

#include "base/replace_file.h"
#include "cli/error_line.h"
#include "cli/progress_line.h"
#include "otactl/commands.h"
#include "otactl/output_files.h"
#include "package/chunked.h"

namespace {

bool is_restored(const std::string& directory, const ManifestModule& module) {
    CheckedFile checked;
    const PackageFile file = {module.file, module.size, false, {module}};
    return check_file(
               directory + module.file, file, [](uint64_t) {}, checked)
        .ok();
}

int restore_to_file(const std::string& directory, const ManifestModule& module,
                    bool needsSignature) {
    OutputFiles files;
    corvo::UniqueFd file;
    const std::string path = directory + module.file;
    int result = files.create(path, file);
    if (result != OTACTL_OK) {
        return result;
    }
    ProgressLine line(true, module.file + " restored", module.size);
    int error = 0;
    const PackageStatus status = restore_image(
        directory, module,
        [&file, &error](std::span<const char> bytes) {
            const bool written = corvo::write_all(file.get(), {bytes.data(), bytes.size()});
            error = written ? 0 : errno;
            return written;
        },
        [&line](uint64_t bytes) { line.show(bytes); });
    if (!status.ok()) {
        return refuse(status, needsSignature);
    }
    if (error != 0) {
        print_error(OTACTL, "cannot write " + path + ": " + strerror(error));
        return OTACTL_FAILED;
    }
    result = OutputFiles::flush(path, file);
    return result == OTACTL_OK ? files.put_in_place("") : result;
}

}  // namespace

int restore_images(const Manifest& manifest, const std::string& directory, bool needsSignature) {
    for (const ManifestModule& module : manifest.modules) {
        if (!module.chunked || is_restored(directory, module)) {
            continue;
        }
        const int result = restore_to_file(directory, module, needsSignature);
        if (result != OTACTL_OK) {
            return result;
        }
    }
    return OTACTL_OK;
}
