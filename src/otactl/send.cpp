#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "cli/error_line.h"
#include "commit/record.h"
#include "otactl/commands.h"
#include "otactl/log_stream.h"
#include "otactl/restore.h"
#include "otactl/trust.h"
#include "package/modules.h"
#include "package/request.h"

namespace {

constexpr int CONNECT_TIMEOUT_MS = 3000;

using Modules = std::vector<const OtaPackageEntry*>;

// A request and the files that were checked for it.
struct Request {
    OtaMessage message = {};
    Modules modules;
    std::vector<CheckedFile> checked;
    bool signatureChecked = false;
};

int wrong_use(const std::string& message) {
    print_error(OTACTL, message);
    return OTACTL_WRONG_USE;
}

int no_service(const std::string& message) {
    print_error(OTACTL, message);
    return OTACTL_NO_SERVICE;
}

// Converts the directory to an absolute path that ends in "/": the service has another working
// directory, and appends the file name directly.
std::string absolute_directory(const std::string& directory) {
    std::error_code fault;
    std::string path = std::filesystem::absolute(directory, fault).lexically_normal().string();
    if (!path.ends_with('/')) {
        path += '/';
    }
    return path;
}

// Returns whether the path is a regular file of at most 2 GiB; prints a message if it is not.
bool is_image(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        print_error(OTACTL, "cannot use " + path + ": " + strerror(errno));
        return false;
    }
    if (!S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) > IMAGE_SIZE_MAX) {
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

// Removes all modules from the manifest that were not requested. An empty request keeps all.
PackageStatus select_modules(const Modules& requested, const std::string& path,
                             Manifest& manifest) {
    std::vector<ManifestModule> selected;
    for (const OtaPackageEntry* entry : requested) {
        const auto found =
            std::ranges::find(manifest.modules, entry->partitionName, &ManifestModule::name);
        if (found == manifest.modules.end()) {
            return package_fault(PACKAGE_UNSUITABLE,
                                 path + " has no module " + std::string(entry->partitionName));
        }
        selected.push_back(*found);
    }
    if (!requested.empty()) {
        manifest.modules = std::move(selected);
    }
    return {};
}

PackageStatus first_objection(const Manifest& manifest, const Trust& trust) {
    std::vector<PackageStatus> objections = camera_objections(manifest, trust.rules);
    return objections.empty() ? PackageStatus{} : std::move(objections.front());
}

// Checks the package completely and fills in the request, which is posted later. `package` is the
// file name of a combined package, and empty otherwise.
PackageStatus check_package(const Manifest& manifest, const std::string& directory,
                            const std::string& package, const Trust& trust, Request& request) {
    PackageStatus status = first_objection(manifest, trust);
    if (!status.ok()) {
        return status;
    }
    request.modules.clear();
    for (const ManifestModule& module : manifest.modules) {
        request.modules.push_back(find_module(module.name));
    }
    request.signatureChecked = trust.needsSignature;
    status = manifest.combined() ? request_combined(directory, package, manifest, request.message)
                                 : request_files(directory, request.modules, request.message);
    return status.ok() ? check_files(manifest, directory, package, true, request.checked) : status;
}

void show_signer(const Manifest& manifest, const Signer& signer, const Trust& trust) {
    if (trust.needsSignature) {
        printf("%s %s, signed by %s\n", manifest.compatible.c_str(), manifest.version.c_str(),
               signer.subject.c_str());
        fflush(stdout);
    }
}

// Posts the request, unless a file was changed since it was checked.
int post(int queue, const Request& request, long messageType) {
    PackageStatus status;
    for (const CheckedFile& file : request.checked) {
        if (status.ok()) {
            status = check_unchanged(file);
        }
    }
    if (status.ok()) {
        status = post_request(queue, request.message, messageType);
    }
    return status.ok() ? static_cast<int>(OTACTL_OK) : refuse(status, request.signatureChecked);
}

// An upgrade during a trial overwrites the system to which the camera returns if the trial fails.
bool is_on_trial() {
    RecordFolder folder = {.path = COMMIT_FOLDER};
    TrialRecord record;
    const RecordResult loaded = load_record(files_of(folder), record);
    // Of a damaged record nobody knows whether it was a commit.
    return loaded != RECORD_MISSING && (loaded != RECORD_OK || record.phase != Phase::COMMITTED);
}

int send_request(const Request& request, const SendOptions& options) {
    if (!options.duringTrial && is_on_trial()) {
        print_error(
            OTACTL,
            "a new system is on trial (corvo_commit status); an upgrade now would overwrite "
            "the system to return to (--during-trial)");
        return OTACTL_FAILED;
    }
    int queue = -1;
    const PackageStatus status = open_request_queue(queue);
    if (!status.ok()) {
        return no_service(status.text);
    }
    // The service accepts any message type. With our own process id as the type, --follow can find
    // this request in the queue and withdraw it.
    const long messageType = getpid();
    if (!options.follow) {
        const int result = post(queue, request, messageType);
        if (result == OTACTL_OK) {
            printf("request posted: %zu module(s)\n", request.modules.size());
        }
        return result;
    }
    // Subscribe before posting, so that no log line of the upgrade is missed.
    LogStream log;
    std::string error;
    if (!log.open(options.logAddress, error)) {
        return wrong_use("cannot subscribe at " + options.logAddress + ": " + error);
    }
    if (!log.wait_connected(CONNECT_TIMEOUT_MS)) {
        return no_service("the service is not running: no publisher at " + options.logAddress);
    }
    const int result = post(queue, request, messageType);
    if (result != OTACTL_OK) {
        return result;
    }
    return follow_upgrade(log, request.modules, request.message, queue, messageType);
}

// Fills in a request for images without a manifest, of which only the existence is checked.
int request_unlisted_files(const std::string& directory, Request& request) {
    if (request.modules.empty()) {
        return wrong_use("modules are required: " + module_names() + " (see --help)");
    }
    const PackageStatus status = request_files(directory, request.modules, request.message);
    if (!status.ok()) {
        return refuse(status, false);
    }
    for (const OtaPackageEntry* entry : request.modules) {
        if (!is_image(directory + entry->fileName)) {
            return OTACTL_WRONG_USE;
        }
    }
    return OTACTL_OK;
}

int request_listed_files(const std::string& directory, const std::string& manifestPath,
                         const Trust& trust, Request& request) {
    Manifest manifest;
    Signer signer;
    PackageStatus status = read_manifest(manifestPath, trust, manifest, signer);
    if (status.ok() && manifest.combined()) {
        return wrong_use(manifestPath + " is the manifest of a combined package");
    }
    if (status.ok()) {
        status = select_modules(request.modules, manifestPath, manifest);
    }
    if (status.ok()) {
        status = first_objection(manifest, trust);
    }
    if (status.ok()) {
        const int result = restore_images(manifest, directory, trust.needsSignature);
        if (result != OTACTL_OK) {
            return result;
        }
        status = check_package(manifest, directory, "", trust, request);
    }
    if (!status.ok()) {
        return refuse(status, trust.needsSignature);
    }
    show_signer(manifest, signer, trust);
    return OTACTL_OK;
}

}  // namespace

int send_files(const SendOptions& options) {
    Trust trust;
    Request request;
    const std::string directory = absolute_directory(options.directory);
    int result = load_trust(options.trust, trust);
    if (result == OTACTL_OK) {
        result = find_modules(options.modules, request.modules);
    }
    if (result == OTACTL_OK) {
        // If no signature is required, a manifest is read only when it is named explicitly.
        result = trust.needsSignature || !options.manifest.empty()
                     ? request_listed_files(directory,
                                            options.manifest.empty() ? directory + FOLDER_MANIFEST
                                                                     : options.manifest,
                                            trust, request)
                     : request_unlisted_files(directory, request);
    }
    return result == OTACTL_OK ? send_request(request, options) : result;
}

int send_combined(const SendOptions& options) {
    Trust trust;
    Request request;
    Manifest manifest;
    Signer signer;
    const std::filesystem::path package = options.package;
    const std::string directory =
        absolute_directory(package.has_parent_path() ? package.parent_path().string() : ".");
    const std::string file = package.filename().string();
    // Without a file name the service would look for separate images in the directory instead of
    // the package that was checked.
    if (file.empty() || file == "." || file == "..") {
        return wrong_use("\"" + options.package + "\" is not the name of a package file");
    }
    const int result = load_trust(options.trust, trust);
    if (result != OTACTL_OK) {
        return result;
    }
    PackageStatus status = read_manifest(options.manifest, trust, manifest, signer);
    if (status.ok() && !manifest.combined()) {
        return wrong_use(options.manifest + " is not the manifest of a combined package");
    }
    if (status.ok() && !trust.needsSignature && !is_image(directory + file)) {
        return OTACTL_WRONG_USE;
    }
    if (status.ok()) {
        status = check_package(manifest, directory, file, trust, request);
    }
    if (!status.ok()) {
        return refuse(status, trust.needsSignature);
    }
    show_signer(manifest, signer, trust);
    return send_request(request, options);
}
