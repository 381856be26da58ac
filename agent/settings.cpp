#include "agent/settings.h"

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ota/ota_message.h"
#include "package/files.h"
#include "package/manifest.h"

namespace {

constexpr size_t TOKEN_SIZE_MAX = 4096;
constexpr int32_t MINUTES_PER_HOUR = 60;
constexpr int32_t HOURS_PER_DAY = 24;
constexpr size_t CONTROLLER_ID_SIZE_MAX = 255;

AgentStatus wrong(const char* setting, const std::string& what) {
    return agent_fault(AGENT_MALFORMED, std::string(setting) + ": " + what);
}

AgentStatus need_folder(const char* setting, std::string& folder) {
    if (!folder.starts_with('/')) {
        return wrong(setting, "an absolute path, please, not \"" + folder + "\"");
    }
    if (!folder.ends_with('/')) {
        folder += '/';
    }
    return {};
}

// The secret that "SCHEME SECRET" of the header is made of.
AgentStatus read_token(const char* setting, const std::string& path, const char* scheme,
                       std::string& authorization) {
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        return wrong(setting, "others can read " + path + " (chmod 600)");
    }
    std::string token;
    const PackageStatus read = read_small_file(path, TOKEN_SIZE_MAX, FileKind::REGULAR, token);
    if (!read.ok()) {
        return wrong(setting, read.text);
    }
    token.erase(token.find_last_not_of(" \t\r\n") + 1);
    if (token.empty() || token.find_first_of(" \t\r\n") != std::string::npos) {
        return wrong(setting, path + " holds no token");
    }
    authorization = std::string(scheme) + ' ' + token;
    return {};
}

AgentStatus check_server(ServerSettings& server) {
    if (!server.url.starts_with("https://") && !server.url.starts_with("http://")) {
        return wrong("server", "a URL such as https://updates.example:8443 is needed");
    }
    server.url.erase(server.url.find_last_not_of('/') + 1);
    if (server.controllerId.empty()) {
        char host[CONTROLLER_ID_SIZE_MAX + 1] = {};
        if (gethostname(host, sizeof(host) - 1) != 0 || host[0] == '\0') {
            return wrong("controller-id", "not set, and this camera has no host name");
        }
        server.controllerId = host;
    }
    if (server.controllerId.size() > CONTROLLER_ID_SIZE_MAX) {
        return wrong("controller-id", "at most 255 characters");
    }
    if (server.tenant.empty()) {
        return wrong("tenant", "must not be empty");
    }
    if (server.certificate.empty() != server.key.empty()) {
        return wrong(server.key.empty() ? "key" : "certificate", "certificate and key go together");
    }
    if (server.connectTimeoutS == 0 || server.stallTimeoutS == 0) {
        return wrong(server.connectTimeoutS == 0 ? "connect-timeout" : "stall-timeout",
                     "at least a second");
    }
    return {};
}

AgentStatus read_tokens(AgentSettings& settings) {
    if (!settings.targetTokenFile.empty() && !settings.gatewayTokenFile.empty()) {
        return wrong("gateway-token-file", "not together with target-token-file");
    }
    if (!settings.targetTokenFile.empty()) {
        return read_token("target-token-file", settings.targetTokenFile, "TargetToken",
                          settings.server.authorization);
    }
    if (!settings.gatewayTokenFile.empty()) {
        return read_token("gateway-token-file", settings.gatewayTokenFile, "GatewayToken",
                          settings.server.authorization);
    }
    return {};
}

AgentStatus check_consent(const AgentSettings& settings) {
    DayWindow window;
    if (!settings.window.empty() && !parse_window(settings.window, window)) {
        return wrong("window", "HH:MM-HH:MM, please, not \"" + settings.window + "\"");
    }
    if (settings.confirm != "auto" && settings.confirm != "ask") {
        return wrong("confirm", "auto or ask, not \"" + settings.confirm + "\"");
    }
    for (const std::string& attribute : settings.attributes) {
        if (attribute.find('=') == std::string::npos || attribute.starts_with('=')) {
            return wrong("attribute", "name=value, please, not \"" + attribute + "\"");
        }
    }
    return {};
}

AgentStatus check_package(AgentSettings& settings, Keyring& keyring) {
    if (settings.keyring.empty()) {
        return wrong("keyring", "is needed: it says whose packages are taken");
    }
    const PackageStatus loaded = load_keyring(settings.keyring, settings.crl, keyring);
    if (!loaded.ok()) {
        return wrong("keyring", loaded.text);
    }
    if (!settings.compatible.empty() && !is_camera_kind(settings.compatible)) {
        return wrong("compatible", "\"" + settings.compatible + "\" is no kind of camera");
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

AgentStatus complete_settings(AgentSettings& settings, Keyring& keyring) {
    AgentStatus status = check_server(settings.server);
    if (status.ok()) {
        status = read_tokens(settings);
    }
    if (status.ok()) {
        status = need_folder("download-folder", settings.downloadFolder);
    }
    // The request has room for so much of a path.
    constexpr size_t LONGEST = OTA_MSG_DIR_SIZE - sizeof(AGENT_FOLDER);
    if (status.ok() && settings.downloadFolder.size() > LONGEST) {
        status = wrong("download-folder", "longer than " + std::to_string(LONGEST) + " characters");
    }
    if (status.ok()) {
        status = need_folder("state-folder", settings.stateFolder);
    }
    if (status.ok()) {
        status = check_consent(settings);
    }
    return status.ok() ? check_package(settings, keyring) : status;
}

DdiAttributes set_attributes(const AgentSettings& settings) {
    DdiAttributes attributes;
    for (const std::string& attribute : settings.attributes) {
        const size_t equals = attribute.find('=');
        attributes.emplace_back(attribute.substr(0, equals), attribute.substr(equals + 1));
    }
    return attributes;
}
