#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "base/owned.h"
#include "error_line.h"
#include "otactl/commands.h"
#include "otactl/crc32.h"
#include "otactl/log_stream.h"
#include "otactl/manifest.h"
#include "otactl/modules.h"

namespace {

constexpr int CONNECT_TIMEOUT_MS = 3000;
constexpr size_t SERVICE_PATH_MAX = 127;  // characters of a path that the service builds

using Modules = std::vector<const OtaPackageEntry*>;

int wrong_use(const std::string& message) {
    print_error(OTACTL, message);
    return OTACTL_WRONG_USE;
}

int no_service(const std::string& message) {
    print_error(OTACTL, message);
    return OTACTL_NO_SERVICE;
}

// The directory as the service needs it: its own working directory is another one, and it puts the
// file name right behind this.
std::string absolute_directory(const std::string& directory) {
    std::error_code fault;
    std::string path = std::filesystem::absolute(directory, fault).lexically_normal().string();
    if (!path.ends_with('/')) {
        path += '/';
    }
    return path;
}

int set_directory(OtaMessage& message, const std::string& directory) {
    if (directory.size() >= OTA_MSG_DIR_SIZE) {
        return wrong_use("the directory " + directory + " is longer than " +
                         std::to_string(OTA_MSG_DIR_SIZE - 1) + " characters");
    }
    memcpy(message.packageDir, directory.c_str(), directory.size() + 1);
    return OTACTL_OK;
}

// The size of a regular file that is there; a message and false when it is not fit for an upgrade.
bool image_size(const std::string& path, uint64_t& size) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        print_error(OTACTL, "cannot use " + path + ": " + strerror(errno));
        return false;
    }
    size = static_cast<uint64_t>(status.st_size);
    if (!S_ISREG(status.st_mode) || size > IMAGE_SIZE_MAX) {
        print_error(OTACTL, "cannot use " + path +
                                (S_ISREG(status.st_mode) ? ": larger than 2 GiB" : ": not a file"));
        return false;
    }
    return true;
}

int find_modules(const std::vector<std::string>& names, Modules& modules) {
    for (const std::string& name : names) {
        const OtaPackageEntry* entry = find_module(name);
        if (entry == nullptr) {
            return wrong_use("unknown module \"" + name + "\" (there are " + module_names() + ")");
        }
        if (std::find(modules.begin(), modules.end(), entry) != modules.end()) {
            return wrong_use("module " + name + " is named twice");
        }
        modules.push_back(entry);
    }
    return OTACTL_OK;
}

int check_module(const ManifestModule& module, const std::string& path, uint64_t packageSize,
                 FILE* package) {
    const std::string name = module.entry->partitionName;
    if (module.offset + module.size > packageSize) {
        return wrong_use("module " + name + " ends beyond the end of " + path);
    }
    if (!module.crc) {
        return OTACTL_OK;
    }
    std::array<char, 65536> buffer;
    uint32_t crc = 0;
    uint64_t left = module.size;
    if (fseeko(package, static_cast<off_t>(module.offset), SEEK_SET) != 0) {
        return wrong_use("cannot read " + path + ": " + strerror(errno));
    }
    while (left > 0) {
        const auto wanted = static_cast<size_t>(std::min<uint64_t>(left, buffer.size()));
        if (fread(buffer.data(), 1, wanted, package) != wanted) {
            return wrong_use("cannot read " + path + ": " + strerror(errno));
        }
        crc = crc32(crc, std::span(buffer.data(), wanted));
        left -= wanted;
    }
    return crc == *module.crc
               ? OTACTL_OK
               : wrong_use("module " + name + " in " + path + " does not match its checksum");
}

// The service does not read a combined package back, so what is wrong with it is best found here.
int check_content(const std::string& path, uint64_t packageSize, const Manifest& manifest) {
    const corvo::OwnedFile package(fopen(path.c_str(), "rbe"));
    if (!package) {
        return wrong_use("cannot read " + path + ": " + strerror(errno));
    }
    for (const ManifestModule& module : manifest) {
        const int result = check_module(module, path, packageSize, package.get());
        if (result != OTACTL_OK) {
            return result;
        }
    }
    return OTACTL_OK;
}

int post(int queue, const OtaMessage& message, long messageType) {
    OtaQueueMessage queued = {};
    queued.mtype = messageType;
    memcpy(queued.text, reinterpret_cast<const char*>(&message) + sizeof(message.mtype),
           sizeof(queued.text));
    if (msgsnd(queue, &queued, sizeof(queued.text), IPC_NOWAIT) == 0) {
        return OTACTL_OK;
    }
    if (errno == EIDRM || errno == EINVAL) {
        return no_service("the service has just removed its request queue");
    }
    print_error(OTACTL, std::string("cannot post the request: ") +
                            (errno == EAGAIN ? "the queue is full" : strerror(errno)));
    return OTACTL_FAILED;
}

int send_message(const OtaMessage& message, const Modules& modules, const SendOptions& options) {
    const int queue = msgget(ftok(OTA_MSG_QUEUE_PATH, OTA_MSG_QUEUE_PROJECT), 0);
    if (queue < 0) {
        return no_service(errno == ENOENT
                              ? "the service is not running: there is no request queue"
                              : std::string("cannot use the request queue: ") + strerror(errno));
    }
    // The service takes any type; one of our own lets --follow take the request back.
    const long messageType = getpid();
    if (!options.follow) {
        const int result = post(queue, message, messageType);
        if (result == OTACTL_OK) {
            printf("request posted: %zu module(s)\n", modules.size());
        }
        return result;
    }
    // Subscribed before it is posted: no line of the upgrade is missed.
    LogStream log;
    std::string error;
    if (!log.open(options.logAddress, error)) {
        return wrong_use("cannot subscribe at " + options.logAddress + ": " + error);
    }
    if (!log.wait_connected(CONNECT_TIMEOUT_MS)) {
        return no_service("the service is not running: nobody publishes at " + options.logAddress);
    }
    const int result = post(queue, message, messageType);
    if (result != OTACTL_OK) {
        return result;
    }
    return follow_upgrade(log, modules, message.packageType == OTA_PACKAGE_TYPE_FILES, queue,
                          messageType);
}

}  // namespace

int send_files(const SendOptions& options) {
    OtaMessage message = {};
    message.packageType = OTA_PACKAGE_TYPE_FILES;
    const std::string directory = absolute_directory(options.directory);
    int result = set_directory(message, directory);
    Modules modules;
    if (result == OTACTL_OK) {
        result = find_modules(options.modules, modules);
    }
    if (result != OTACTL_OK) {
        return result;
    }
    for (const OtaPackageEntry* entry : modules) {
        uint64_t size = 0;
        if (!image_size(directory + entry->fileName, size)) {
            return OTACTL_WRONG_USE;
        }
        message.moduleTypes[message.moduleCount++] = entry->moduleType;
    }
    return send_message(message, modules, options);
}

int send_combined(const SendOptions& options) {
    OtaMessage message = {};
    message.packageType = OTA_PACKAGE_TYPE_COMBINED;
    const size_t slash = options.package.rfind('/');
    const std::string file =
        slash == std::string::npos ? options.package : options.package.substr(slash + 1);
    const std::string directory =
        absolute_directory(slash == std::string::npos ? "." : options.package.substr(0, slash + 1));
    const int result = set_directory(message, directory);
    if (result != OTACTL_OK) {
        return result;
    }
    if (file.size() >= OTA_MSG_FILE_SIZE || directory.size() + file.size() > SERVICE_PATH_MAX) {
        return wrong_use("the path of the package is longer than " +
                         std::to_string(SERVICE_PATH_MAX) + " characters");
    }
    memcpy(message.packageFile, file.c_str(), file.size() + 1);

    std::string text;
    if (!read_small_file(options.manifest, MANIFEST_SIZE_MAX, text)) {
        return wrong_use("cannot read " + options.manifest + ": " + strerror(errno));
    }
    Manifest manifest;
    std::string error;
    if (!parse_manifest(text, manifest, error)) {
        return wrong_use(options.manifest + ": " + error);
    }
    uint64_t packageSize = 0;
    if (!image_size(directory + file, packageSize) ||
        check_content(directory + file, packageSize, manifest) != OTACTL_OK) {
        return OTACTL_WRONG_USE;
    }
    Modules modules;
    for (const ManifestModule& module : manifest) {
        const auto i = static_cast<size_t>(message.moduleCount++);
        message.moduleTypes[i] = module.entry->moduleType;
        message.moduleInfo[i] = {.size = module.size, .offset = module.offset};
        modules.push_back(module.entry);
    }
    return send_message(message, modules, options);
}
