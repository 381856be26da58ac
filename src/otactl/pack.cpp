#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <filesystem>

#include "base/crc32.h"
#include "base/replace_file.h"
#include "cli/error_line.h"
#include "cli/progress_line.h"
#include "otactl/chunk_image.h"
#include "otactl/commands.h"
#include "otactl/output_files.h"
#include "package/content.h"
#include "package/files.h"
#include "package/manifest.h"
#include "package/modules.h"
#include "package/signed_manifest.h"
#include "package/version.h"

namespace {

// Smaller images are not worth two more files and the requests for their parts.
constexpr uint64_t UNCHUNKED_SIZE_MAX = 1048576;  // bytes

struct Input {
    const OtaPackageEntry* entry;
    std::string path;
    uint64_t size;  // bytes, at least 1
};

int wrong_use(const std::string& message) {
    print_error(OTACTL, message);
    return OTACTL_WRONG_USE;
}

int failed(const std::string& what, const std::string& path) {
    print_error(OTACTL, what + " " + path + ": " + strerror(errno));
    return OTACTL_FAILED;
}

// Adds an image to the inputs. It must be a regular, non-empty file.
int add_input(const std::string& name, const std::string& path, std::vector<Input>& inputs,
              uint64_t& total) {
    const OtaPackageEntry* entry = find_module(name);
    if (entry == nullptr) {
        return wrong_use("unknown module \"" + name + "\" (there are " + module_names() + ")");
    }
    for (const Input& input : inputs) {
        if (input.entry == entry) {
            return wrong_use("module " + name + " is named twice");
        }
    }
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return wrong_use("cannot use " + path + ": " + strerror(errno));
    }
    if (!S_ISREG(status.st_mode) || status.st_size == 0) {
        return wrong_use("cannot use " + path + ": empty or not a file");
    }
    const auto size = static_cast<uint64_t>(status.st_size);
    total += size;
    inputs.push_back({entry, path, size});
    return OTACTL_OK;
}

int read_arguments(const std::vector<std::string>& arguments, std::vector<Input>& inputs) {
    uint64_t total = 0;
    for (const std::string& argument : arguments) {
        const size_t equals = argument.find('=');
        if (equals == std::string::npos || equals + 1 == argument.size()) {
            return wrong_use("expected NAME=PATH, not \"" + argument + "\"");
        }
        const int result =
            add_input(argument.substr(0, equals), argument.substr(equals + 1), inputs, total);
        if (result != OTACTL_OK) {
            return result;
        }
        if (total > IMAGE_SIZE_MAX) {
            return wrong_use("the package would be larger than 2 GiB");
        }
    }
    return OTACTL_OK;
}

// Refuses to overwrite one of the input images.
int protect_images(const std::vector<Input>& inputs, std::initializer_list<std::string> written) {
    for (const Input& input : inputs) {
        for (const std::string& path : written) {
            std::error_code fault;
            if (std::filesystem::equivalent(input.path, path, fault)) {
                return wrong_use("cannot use " + input.path + ": it would be overwritten as " +
                                 path);
            }
        }
    }
    return OTACTL_OK;
}

// Adds the images of the named modules in the directory to the inputs.
int find_images(const PackOptions& options, std::vector<Input>& inputs) {
    for (const std::string& name : options.modules) {
        const OtaPackageEntry* entry = find_module(name);
        const std::string path = options.directory + (entry == nullptr ? "" : entry->fileName);
        uint64_t size = 0;
        const int result = add_input(name, path, inputs, size);
        if (result != OTACTL_OK) {
            return result;
        }
        if (size > IMAGE_SIZE_MAX) {
            return wrong_use("cannot use " + path + ": larger than 2 GiB");
        }
    }
    return OTACTL_OK;
}

std::vector<std::string> list_images(const std::string& directory) {
    std::vector<std::string> names;
    for (const OtaPackageEntry& entry : package_entries()) {
        std::error_code fault;
        if (std::filesystem::exists(directory + entry.fileName, fault)) {
            names.emplace_back(entry.partitionName);
        }
    }
    return names;
}

// Computes the size and digest of an image, and appends the image to the package if that is open.
int add_image(const Input& input, const corvo::UniqueFd& package, bool version2,
              ManifestModule& module) {
    const corvo::UniqueFd image(open(input.path.c_str(), O_RDONLY | O_CLOEXEC));
    Sha256Stream sha256;
    uint32_t crc = 0;
    bool written = true;
    ProgressLine line(true, input.path, input.size);
    const auto add_piece = [&](std::span<const char> bytes) {
        written = !package.valid() || corvo::write_all(package.get(), {bytes.data(), bytes.size()});
        if (!written) {
            return false;
        }
        if (version2) {
            sha256.update(bytes);
        } else {
            crc = corvo::crc32(crc, bytes);
        }
        module.size += bytes.size();
        line.show(module.size);
        return true;
    };
    if (!image.valid() || read_pieces(image.get(), WHOLE_FILE, add_piece) < 0) {
        return failed("cannot read", input.path);
    }
    if (!written) {
        return failed("cannot write", "the package");
    }
    if (version2) {
        module.sha256 = sha256.take();
    } else {
        module.crc = crc;
    }
    return OTACTL_OK;
}

int write_package(const std::vector<Input>& inputs, const std::string& path, Manifest& manifest,
                  OutputFiles& files) {
    corvo::UniqueFd package;
    const int created = files.create(path, package);
    if (created != OTACTL_OK) {
        return created;
    }
    uint64_t offset = 0;
    for (const Input& input : inputs) {
        ManifestModule module = {};
        module.name = input.entry->partitionName;
        module.offset = offset;
        const int result = add_image(input, package, manifest.format == 2, module);
        if (result != OTACTL_OK) {
            return result;
        }
        offset += module.size;
        manifest.modules.push_back(module);
    }
    return OutputFiles::flush(path, package);
}

// Starts a manifest: of version 1 if no option requires version 2, otherwise of version 2 with the
// values of its head.
int start_manifest(const PackOptions& options, bool mustBeVersion2, Manifest& manifest) {
    const bool version2 = mustBeVersion2 || !options.compatible.empty() ||
                          !options.version.empty() || !options.description.empty() ||
                          !options.signing.key.empty() || !options.signing.certificate.empty();
    manifest.format = version2 ? 2 : 1;
    if (!version2) {
        return OTACTL_OK;
    }
    if (!is_camera_kind(options.compatible)) {
        return wrong_use("--compatible must name the hardware type that the package is for");
    }
    if (!is_version(options.version)) {
        return wrong_use("--version must be the package's version, such as 2.7.1");
    }
    if (!options.description.empty() && !is_description(options.description)) {
        return wrong_use("--description is not up to 200 printable ASCII characters");
    }
    if (options.signing.key.empty() != options.signing.certificate.empty()) {
        return wrong_use("--key and --certificate must be given together");
    }
    manifest.compatible = options.compatible;
    manifest.version = options.version;
    manifest.description = options.description;
    return OTACTL_OK;
}

int finish(const Manifest& manifest, const std::string& path, const SigningOptions& signing,
           OutputFiles& files) {
    const std::string text = format_manifest(manifest);
    int result = files.write(path, text);
    if (result == OTACTL_OK && !signing.key.empty()) {
        std::string signature;
        const PackageStatus status = sign(text, signing, signature);
        result =
            status.ok() ? files.write(path + SIGNATURE_SUFFIX, signature) : refuse(status, false);
    }
    if (result == OTACTL_OK) {
        // If the new manifest is not signed, remove the signature of the manifest that it replaces:
        // it would not match the new one.
        result = files.put_in_place(signing.key.empty() ? path + SIGNATURE_SUFFIX : "");
    }
    if (result != OTACTL_OK) {
        return result;
    }
    for (const ManifestModule& module : manifest.modules) {
        printf("%-12s %10llu bytes %s%s\n", module.name.c_str(),
               static_cast<unsigned long long>(module.size), manifest.combined() ? "at " : "in ",
               manifest.combined() ? std::to_string(module.offset).c_str() : module.file.c_str());
        if (!module.chunked) {
            continue;
        }
        for (const ManifestFile& file : {module.chunked->frames, module.chunked->index}) {
            printf("%-12s %10llu bytes in %s\n", "", static_cast<unsigned long long>(file.size),
                   file.name.c_str());
        }
    }
    return OTACTL_OK;
}

}  // namespace

int pack_combined(const PackOptions& options) {
    if (options.output.empty() || options.manifest.empty() || options.modules.empty()) {
        return wrong_use(
            "pack needs --output, --manifest and NAME=PATH of each image (see --help)");
    }
    const auto plain = [](const std::string& path) {
        return std::filesystem::path(path).lexically_normal();
    };
    if (plain(options.output) == plain(options.manifest) ||
        plain(options.output) == plain(options.manifest + SIGNATURE_SUFFIX)) {
        return wrong_use("package, manifest and signature cannot be the same file");
    }
    Manifest manifest;
    std::vector<Input> inputs;
    int result = start_manifest(options, false, manifest);
    if (result == OTACTL_OK) {
        result = read_arguments(options.modules, inputs);
    }
    if (result == OTACTL_OK) {
        // The output file itself may be one of the images, since it is replaced only after all
        // images were read.
        result = protect_images(inputs, {OutputFiles::part_of(options.output), options.manifest,
                                         options.manifest + SIGNATURE_SUFFIX});
    }
    if (result != OTACTL_OK) {
        return result;
    }
    if (manifest.format == 2) {
        manifest.package = plain(options.output).filename().string();
        if (!is_file_name(manifest.package)) {
            return wrong_use("a package of version 2 cannot have the name " + manifest.package);
        }
    }
    OutputFiles files;
    result = write_package(inputs, options.output, manifest, files);
    return result == OTACTL_OK ? finish(manifest, options.manifest, options.signing, files)
                               : result;
}

int pack_files(const PackOptions& options) {
    PackOptions all = options;
    if (!all.directory.ends_with('/')) {
        all.directory += '/';
    }
    if (all.manifest.empty()) {
        all.manifest = all.directory + FOLDER_MANIFEST;
    }
    if (all.modules.empty()) {
        all.modules = list_images(all.directory);
    }
    Manifest manifest;
    std::vector<Input> inputs;
    int result = start_manifest(all, true, manifest);
    if (result == OTACTL_OK) {
        result = find_images(all, inputs);
    }
    if (result == OTACTL_OK) {
        result = protect_images(inputs, {all.manifest, all.manifest + SIGNATURE_SUFFIX});
    }
    if (result == OTACTL_OK && inputs.empty()) {
        result = wrong_use("no image in " + all.directory);
    }
    OutputFiles files;
    for (const Input& input : inputs) {
        if (result != OTACTL_OK) {
            return result;
        }
        ManifestModule& module = manifest.modules.emplace_back();
        module.name = input.entry->partitionName;
        module.file = input.entry->fileName;
        if (all.chunked && input.size > UNCHUNKED_SIZE_MAX) {
            manifest.format = 3;
            result = chunk_image(input.path, input.size, files, module);
        } else {
            result = add_image(input, {}, true, module);
        }
    }
    return result == OTACTL_OK ? finish(manifest, all.manifest, all.signing, files) : result;
}
