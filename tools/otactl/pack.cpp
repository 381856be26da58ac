#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>

#include "base/owned.h"
#include "error_line.h"
#include "otactl/commands.h"
#include "otactl/crc32.h"
#include "otactl/manifest.h"
#include "otactl/modules.h"

namespace {

struct Input {
    const OtaPackageEntry* entry;
    std::string path;
};

int wrong_use(const std::string& message) {
    print_error(OTACTL, message);
    return OTACTL_WRONG_USE;
}

int failed(const std::string& what, const std::string& path) {
    print_error(OTACTL, what + " " + path + ": " + strerror(errno));
    return OTACTL_FAILED;
}

int read_arguments(const std::vector<std::string>& arguments, std::vector<Input>& inputs) {
    uint64_t total = 0;
    for (const std::string& argument : arguments) {
        const size_t equals = argument.find('=');
        if (equals == std::string::npos || equals + 1 == argument.size()) {
            return wrong_use("expected NAME=PATH, not \"" + argument + "\"");
        }
        const std::string name = argument.substr(0, equals);
        const OtaPackageEntry* entry = find_module(name);
        if (entry == nullptr) {
            return wrong_use("unknown module \"" + name + "\" (there are " + module_names() + ")");
        }
        for (const Input& input : inputs) {
            if (input.entry == entry) {
                return wrong_use("module " + name + " is named twice");
            }
        }
        inputs.push_back({entry, argument.substr(equals + 1)});
        struct stat status = {};
        const std::string& path = inputs.back().path;
        if (stat(path.c_str(), &status) != 0) {
            return wrong_use("cannot use " + path + ": " + strerror(errno));
        }
        if (!S_ISREG(status.st_mode) || status.st_size == 0) {
            return wrong_use("cannot use " + path + ": not a file with something in it");
        }
        total += static_cast<uint64_t>(status.st_size);
        if (total > IMAGE_SIZE_MAX) {
            return wrong_use("the package would be larger than 2 GiB");
        }
    }
    return OTACTL_OK;
}

// Copies one image to the end of the package and notes where it lies.
int append_image(const Input& input, FILE* package, ManifestModule& module) {
    const corvo::OwnedFile image(fopen(input.path.c_str(), "rbe"));
    if (!image) {
        return failed("cannot read", input.path);
    }
    std::array<char, 65536> buffer;
    uint32_t crc = 0;
    for (size_t n = 0; (n = fread(buffer.data(), 1, buffer.size(), image.get())) > 0;) {
        if (fwrite(buffer.data(), 1, n, package) != n) {
            return failed("cannot write", "the package");
        }
        crc = crc32(crc, std::span(buffer.data(), n));
        module.size += n;
    }
    if (ferror(image.get()) != 0) {
        return failed("cannot read", input.path);
    }
    module.crc = crc;
    return OTACTL_OK;
}

int write_package(const std::vector<Input>& inputs, const std::string& path, Manifest& manifest) {
    corvo::OwnedFile package(fopen(path.c_str(), "wbe"));
    if (!package) {
        return failed("cannot write", path);
    }
    uint64_t offset = 0;
    for (const Input& input : inputs) {
        ManifestModule module = {
            .entry = input.entry, .offset = offset, .size = 0, .crc = std::nullopt};
        const int result = append_image(input, package.get(), module);
        if (result != OTACTL_OK) {
            return result;
        }
        offset += module.size;
        manifest.push_back(module);
    }
    return fclose(package.release()) == 0 ? OTACTL_OK : failed("cannot write", path);
}

int write_text(const std::string& path, const std::string& text) {
    corvo::OwnedFile file(fopen(path.c_str(), "wbe"));
    if (!file) {
        return failed("cannot write", path);
    }
    const bool written = fwrite(text.data(), 1, text.size(), file.get()) == text.size();
    return fclose(file.release()) == 0 && written ? OTACTL_OK : failed("cannot write", path);
}

}  // namespace

int pack(const PackOptions& options) {
    std::vector<Input> inputs;
    const auto plain = [](const std::string& path) {
        return std::filesystem::path(path).lexically_normal();
    };
    if (plain(options.output) == plain(options.manifest)) {
        return wrong_use("package and manifest cannot be the same file");
    }
    int result = read_arguments(options.modules, inputs);
    if (result != OTACTL_OK) {
        return result;
    }
    // Beside the target and renamed at the end: a package is whole or not there, and one of the
    // images may have the target's name.
    const std::string partPackage = options.output + ".part";
    const std::string partManifest = options.manifest + ".part";
    Manifest manifest;
    result = write_package(inputs, partPackage, manifest);
    if (result == OTACTL_OK) {
        result = write_text(partManifest, format_manifest(manifest));
    }
    if (result == OTACTL_OK && rename(partPackage.c_str(), options.output.c_str()) != 0) {
        result = failed("cannot write", options.output);
    }
    if (result == OTACTL_OK && rename(partManifest.c_str(), options.manifest.c_str()) != 0) {
        result = failed("cannot write", options.manifest);
    }
    if (result != OTACTL_OK) {
        remove(partPackage.c_str());
        remove(partManifest.c_str());
        return result;
    }
    for (const ManifestModule& module : manifest) {
        printf("%-12s %10llu bytes at %llu\n", module.entry->partitionName,
               static_cast<unsigned long long>(module.size),
               static_cast<unsigned long long>(module.offset));
    }
    return OTACTL_OK;
}
