#include "package/request.h"

#include <errno.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include "package/modules.h"

namespace {

constexpr size_t SERVICE_PATH_MAX = 127;  // characters; the longest path that the service can build

PackageStatus set_directory(OtaMessage& message, const std::string& directory) {
    if (directory.size() >= OTA_MSG_DIR_SIZE) {
        return package_fault(PACKAGE_MALFORMED, "the directory " + directory + " is longer than " +
                                                    std::to_string(OTA_MSG_DIR_SIZE - 1) +
                                                    " characters");
    }
    memcpy(message.packageDir, directory.c_str(), directory.size() + 1);
    return {};
}

}  // namespace

PackageStatus request_files(const std::string& directory,
                            const std::vector<const OtaPackageEntry*>& modules,
                            OtaMessage& message) {
    message = {};
    message.packageType = OTA_PACKAGE_TYPE_FILES;
    if (modules.size() > static_cast<size_t>(OTA_MSG_MAX_MODULES)) {
        return package_fault(PACKAGE_MALFORMED, "more modules than a request can hold");
    }
    for (const OtaPackageEntry* entry : modules) {
        message.moduleTypes[message.moduleCount++] = entry->moduleType;
    }
    return set_directory(message, directory);
}

PackageStatus request_combined(const std::string& directory, const std::string& file,
                               const Manifest& manifest, OtaMessage& message) {
    message = {};
    message.packageType = OTA_PACKAGE_TYPE_COMBINED;
    if (file.size() >= OTA_MSG_FILE_SIZE || directory.size() + file.size() > SERVICE_PATH_MAX) {
        return package_fault(PACKAGE_MALFORMED, "the path of the package is longer than " +
                                                    std::to_string(SERVICE_PATH_MAX) +
                                                    " characters");
    }
    memcpy(message.packageFile, file.c_str(), file.size() + 1);
    for (const ManifestModule& module : manifest.modules) {
        const auto i = static_cast<size_t>(message.moduleCount++);
        message.moduleTypes[i] = find_module(module.name)->moduleType;
        message.moduleInfo[i] = {.size = module.size, .offset = module.offset};
    }
    return set_directory(message, directory);
}

PackageStatus open_request_queue(int& queue) {
    queue = msgget(ftok(OTA_MSG_QUEUE_PATH, OTA_MSG_QUEUE_PROJECT), 0);
    if (queue >= 0) {
        return {};
    }
    return package_fault(PACKAGE_NO_SERVICE,
                         errno == ENOENT
                             ? "the service is not running: there is no request queue"
                             : std::string("cannot use the request queue: ") + strerror(errno));
}

PackageStatus post_request(int queue, const OtaMessage& message, long messageType) {
    OtaQueueMessage queued = {};
    queued.mtype = messageType;
    memcpy(queued.text, reinterpret_cast<const char*>(&message) + sizeof(message.mtype),
           sizeof(queued.text));
    if (msgsnd(queue, &queued, sizeof(queued.text), IPC_NOWAIT) == 0) {
        return {};
    }
    if (errno == EIDRM || errno == EINVAL) {
        return package_fault(PACKAGE_NO_SERVICE, "the service has just removed its request queue");
    }
    return package_fault(PACKAGE_UNREADABLE,
                         std::string("cannot post the request: ") +
                             (errno == EAGAIN ? "the queue is full" : strerror(errno)));
}

bool withdraw_request(int queue, long messageType) {
    OtaQueueMessage message = {};
    return msgrcv(queue, &message, sizeof(message.text), messageType, IPC_NOWAIT) >= 0;
}
