#include "agent/settings.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "agent/folder.h"
#include "agent/token.h"
#include "agent/url.h"
#include "ota/ota_message.h"
#include "package/manifest.h"

namespace {

constexpr int32_t MINUTES_PER_HOUR = 60;
constexpr int32_t HOURS_PER_DAY = 24;
constexpr size_t CONTROLLER_ID_SIZE_MAX = 255;
constexpr uint64_t RATE_LIMIT_MIN = 1024;  // bytes a second; a lower rate would look like a stall
// Cards are mounted in subfolders of these. The last one is often a mount point itself.
constexpr std::array<const char*, 3> MOUNT_PARENTS = {"/media", "/run/media", "/mnt"};

AgentStatus wrong(const char* setting, const std::string& what) {
    return agent_fault(AGENT_MALFORMED, std::string(setting) + ": " + what);
}

// Brings a path into its normal form, so that two paths can be compared.
AgentStatus need_folder(const char* setting, std::string& folder) {
    if (!folder.starts_with('/')) {
        return wrong(setting, "must be an absolute path, not \"" + folder + "\"");
    }
    std::string plain = "/";
    for (size_t begin = 1, end = 0; begin < folder.size(); begin = end + 1) {
        end = std::min(folder.find('/', begin), folder.size());
        const std::string name = folder.substr(begin, end - begin);
        if (name == "..") {
            return wrong(setting, "must be a path without \"..\", not \"" + folder + "\"");
        }
        plain += name.empty() || name == "." ? "" : name + '/';
    }
    folder = plain;
    return {};
}

// Refuses a file in a folder that others can write to, because they could replace the file.
AgentStatus need_safe_place(const char* setting, const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string open = path.empty() ? ""
                             : slash == std::string::npos
                                 ? folder_open_to_others(".")
                                 : folder_open_to_others(path.substr(0, slash + 1));
    return open.empty() ? AgentStatus{} : wrong(setting, "others can write to " + open);
}

AgentStatus check_folders(AgentSettings& settings) {
    AgentStatus status = need_folder("download-folder", settings.downloadFolder);
    if (status.ok()) {
        status = need_folder("state-folder", settings.stateFolder);
    }
    if (status.ok() && settings.requireMount != "auto" && settings.requireMount != "yes" &&
        settings.requireMount != "no") {
        status = wrong("require-mount",
                       "must be auto, yes or no, not \"" + settings.requireMount + "\"");
    }
    // The request to the service has a field of fixed size for the path.
    constexpr size_t LONGEST = OTA_MSG_DIR_SIZE - sizeof(AGENT_FOLDER);
    if (status.ok() && settings.downloadFolder.size() > LONGEST) {
        status = wrong("download-folder",
                       "must not be longer than " + std::to_string(LONGEST) + " characters");
    }
    // They must not overlap: files that the action does not name are removed from the download
    // folder, and the action's record is in the state folder.
    if (status.ok() &&
        (folders_overlap(settings.downloadFolder, settings.stateFolder) ||
         folders_overlap(settings.downloadFolder + AGENT_FOLDER, settings.stateFolder))) {
        status = wrong("state-folder", settings.stateFolder + " and the download folder " +
                                           settings.downloadFolder + " must not overlap");
    }
    return status;
}

void name_camera(ServerSettings& server) {
    char host[CONTROLLER_ID_SIZE_MAX + 1] = {};
    if (server.controllerId.empty() && gethostname(host, sizeof(host) - 1) == 0) {
        server.controllerId = host;
    }
}

AgentStatus check_server(ServerSettings& server) {
    if (!server.url.starts_with("https://") && !server.url.starts_with("http://")) {
        return wrong("server", "must be a URL such as https://updates.example:8443");
    }
    server.url.erase(server.url.find_last_not_of('/') + 1);
    if (server.controllerId.empty()) {
        return wrong("controller-id", "not set, and this camera has no host name");
    }
    if (server.controllerId.size() > CONTROLLER_ID_SIZE_MAX) {
        return wrong("controller-id", "must not be longer than 255 characters");
    }
    if (!server.proxy.empty() && url_parts(server.proxy).scheme != "http") {
        return wrong("proxy",
                     "must be none or a URL such as http://proxy.example:3128, without a user "
                     "name");
    }
    if (server.tenant.empty()) {
        return wrong("tenant", "must not be empty");
    }
    if (server.certificate.empty() != server.key.empty()) {
        return wrong(server.key.empty() ? "key" : "certificate",
                     "certificate and key must be set together");
    }
    // libcurl's limit is a signed number.
    if (server.rateLimit != 0 &&
        (server.rateLimit < RATE_LIMIT_MIN || server.rateLimit > INT64_MAX)) {
        return wrong("rate-limit",
                     "must be 0 or at least " + std::to_string(RATE_LIMIT_MIN) + " bytes a second");
    }
    if (server.connectTimeoutS == 0 || server.stallTimeoutS == 0) {
        return wrong(server.connectTimeoutS == 0 ? "connect-timeout" : "stall-timeout",
                     "must be at least 1 second");
    }
    return {};
}

AgentStatus use_token(const char* setting, const std::string& path, const char* scheme,
                      ServerSettings& server) {
    std::string token;
    AgentStatus status = read_token(path, token);
    if (!status.ok()) {
        return wrong(setting, status.text);
    }
    server.tokenFile = path;
    server.authorization = std::string(scheme) + ' ' + token;
    return {};
}

AgentStatus read_tokens(AgentSettings& settings) {
    const bool target = !settings.targetTokenFile.empty();
    if (!target && settings.gatewayTokenFile.empty()) {
        return {};
    }
    if (target && !settings.gatewayTokenFile.empty()) {
        return wrong("gateway-token-file", "cannot be used together with target-token-file");
    }
    if (!settings.server.url.starts_with("https://") && !settings.allowUnencryptedToken) {
        return wrong("server",
                     "http would send the token unencrypted; use https, or set "
                     "allow-unencrypted-token = on");
    }
    return target ? use_token("target-token-file", settings.targetTokenFile, "TargetToken",
                              settings.server)
                  : use_token("gateway-token-file", settings.gatewayTokenFile, "GatewayToken",
                              settings.server);
}

AgentStatus check_places(const AgentSettings& settings) {
    const std::string key = settings.server.key.starts_with("pkcs11:") ? "" : settings.server.key;
    const std::array<std::pair<const char*, std::string>, 6> files = {
        {{"target-token-file", settings.targetTokenFile},
         {"gateway-token-file", settings.gatewayTokenFile},
         {"key", key},
         {"ca", settings.server.ca},
         {"keyring", settings.keyring},
         {"crl", settings.crl}}};
    for (const auto& [setting, path] : files) {
        AgentStatus status = need_safe_place(setting, path);
        if (!status.ok()) {
            return status;
        }
    }
    return {};
}

AgentStatus check_consent(const AgentSettings& settings) {
    DayWindow window;
    if (!settings.window.empty() && !parse_window(settings.window, window)) {
        return wrong("window", "must be HH:MM-HH:MM, not \"" + settings.window + "\"");
    }
    if (settings.confirm != "auto" && settings.confirm != "ask") {
        return wrong("confirm", "must be auto or ask, not \"" + settings.confirm + "\"");
    }
    for (const std::string& attribute : settings.attributes) {
        if (attribute.find('=') == std::string::npos || attribute.starts_with('=')) {
            return wrong("attribute", "must be NAME=VALUE, not \"" + attribute + "\"");
        }
    }
    return {};
}

AgentStatus check_package(AgentSettings& settings, Keyring& keyring) {
    if (settings.keyring.empty()) {
        return wrong("keyring", "must be set; it decides whose packages are accepted");
    }
    const PackageStatus loaded = load_keyring(settings.keyring, settings.crl, keyring);
    if (!loaded.ok()) {
        return wrong("keyring", loaded.text);
    }
    if (settings.compatible.empty()) {
        return wrong("compatible", "must be set; packages for other hardware are refused");
    }
    if (!is_camera_kind(settings.compatible)) {
        return wrong("compatible", "\"" + settings.compatible + "\" is not a hardware type");
    }
    return {};
}

}  // namespace

bool parse_window(const std::string& text, DayWindow& window) {
    int32_t fromHour = 0;
    int32_t fromMinute = 0;
    int32_t untilHour = 0;
    int32_t untilMinute = 0;
    int length = 0;
    if (sscanf(text.c_str(), "%2d:%2d-%2d:%2d%n", &fromHour, &fromMinute, &untilHour, &untilMinute,
               &length) != 4 ||
        static_cast<size_t>(length) != text.size()) {
        return false;
    }
    const auto isTime = [](int32_t hour, int32_t minute) {
        return hour >= 0 && hour < HOURS_PER_DAY && minute >= 0 && minute < MINUTES_PER_HOUR;
    };
    window = {.from = fromHour * MINUTES_PER_HOUR + fromMinute,
              .until = untilHour * MINUTES_PER_HOUR + untilMinute};
    return isTime(fromHour, fromMinute) && isTime(untilHour, untilMinute);
}

bool is_inside(const DayWindow& window, int32_t minuteOfDay) {
    if (window.from < window.until) {
        return minuteOfDay >= window.from && minuteOfDay < window.until;
    }
    return minuteOfDay >= window.from || minuteOfDay < window.until;
}

AgentStatus complete_local_settings(AgentSettings& settings) {
    name_camera(settings.server);
    if (settings.versionFile == NO_VERSION_FILE) {
        settings.versionFile.clear();
    }
    if (settings.server.proxy == NO_PROXY) {
        settings.server.proxy.clear();
    }
    return check_folders(settings);
}

AgentStatus complete_settings(AgentSettings& settings, Keyring& keyring) {
    const bool versionFileIsSet = !settings.versionFile.empty();
    AgentStatus status = complete_local_settings(settings);
    if (status.ok()) {
        status = check_server(settings.server);
    }
    if (status.ok()) {
        status = read_tokens(settings);
    }
    if (status.ok()) {
        status = check_places(settings);
    }
    if (status.ok()) {
        status = check_consent(settings);
    }
    if (status.ok()) {
        status = check_package(settings, keyring);
    }
    if (status.ok() && !versionFileIsSet) {
        status = wrong("version-file",
                       "must be set; older packages are refused (\"none\" turns this off)");
    }
    return status;
}

PackageFolder package_folder(const AgentSettings& settings) {
    PackageFolder place = {.path = settings.downloadFolder + AGENT_FOLDER};
    const auto parent = std::ranges::find_if(MOUNT_PARENTS, [&settings](const char* folder) {
        return settings.downloadFolder.starts_with(std::string(folder) + '/');
    });
    const bool isBelow = parent != MOUNT_PARENTS.end();
    if (settings.requireMount == "yes" || (settings.requireMount == "auto" && isBelow)) {
        place.notOn.emplace_back("/");
    }
    if (!place.notOn.empty() && isBelow && std::next(parent) != MOUNT_PARENTS.end()) {
        place.notOn.emplace_back(*parent);
    }
    return place;
}

DdiAttributes set_attributes(const AgentSettings& settings) {
    DdiAttributes attributes;
    for (const std::string& attribute : settings.attributes) {
        const size_t equals = attribute.find('=');
        attributes.emplace_back(attribute.substr(0, equals), attribute.substr(equals + 1));
    }
    return attributes;
}
