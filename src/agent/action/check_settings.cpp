#include "agent/check_settings.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <span>

#include "agent/folder.h"
#include "agent/token.h"
#include "agent/url.h"
#include "ota/ota_message.h"
#include "package/manifest.h"
#include "package/modules.h"

namespace {

constexpr int32_t MINUTES_PER_HOUR = 60;
constexpr int32_t HOURS_PER_DAY = 24;
constexpr size_t CONTROLLER_ID_SIZE_MAX = 255;
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

// Returns "a, b or c".
std::string choices_text(std::span<const char* const> choices) {
    std::string text = choices[0];
    for (size_t i = 1; i < choices.size() && choices[i] != nullptr; ++i) {
        const bool isLast = i + 1 == choices.size() || choices[i + 1] == nullptr;
        text += std::string(isLast ? " or " : ", ") + choices[i];
    }
    return text;
}

AgentStatus wrong_choice(const char* setting, std::span<const char* const> choices,
                         const std::string& text) {
    return wrong(setting, "must be " + choices_text(choices) + ", not \"" + text + "\"");
}

AgentStatus check_text(const Setting& setting, const std::string& text) {
    if (text.empty()) {
        return setting.missing == nullptr ? AgentStatus{} : wrong(setting.name, setting.missing);
    }
    const auto equals = [&text](const char* choice) { return choice != nullptr && text == choice; };
    if (setting.choices[0] != nullptr && std::ranges::none_of(setting.choices, equals)) {
        return wrong_choice(setting.name, setting.choices, text);
    }
    // A key in a secure element is not a file.
    return setting.isProtectedFile && !text.starts_with("pkcs11:")
               ? need_safe_place(setting.name, text)
               : AgentStatus{};
}

AgentStatus check_number(const Setting& setting, uint64_t number) {
    const NumberRange& range = setting.range;
    if ((number >= range.min && number <= range.max) || (number == 0 && range.zero)) {
        return {};
    }
    return wrong(
        setting.name,
        std::string("must be ") + (range.zero ? "0 or " : "") + "at least " +
            std::to_string(range.min) +
            (range.max == NumberRange{}.max ? "" : " and at most " + std::to_string(range.max)) +
            ' ' + range.unit);
}

// Checks each value by its row of the table. `local`: only those that are needed without a server.
AgentStatus check_values(AgentSettings& settings, bool local) {
    AgentStatus status;
    for (const Setting& setting : SETTINGS) {
        if (!status.ok() || (local && !setting.isLocal)) {
            continue;
        }
        const SettingValue value = value_of(settings, setting.field);
        if (const auto* const text = std::get_if<std::string*>(&value)) {
            status = check_text(setting, **text);
        } else if (const auto* const number = std::get_if<uint32_t*>(&value)) {
            status = check_number(setting, **number);
        } else if (const auto* const large = std::get_if<uint64_t*>(&value)) {
            status = check_number(setting, **large);
        }
    }
    return status;
}

AgentStatus check_folders(AgentSettings& settings) {
    AgentStatus status = need_folder("download-folder", settings.downloadFolder);
    if (status.ok()) {
        status = need_folder("state-folder", settings.stateFolder);
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
    // What Linux and systemd call a host without a name. Such cameras would all be one target.
    constexpr std::string_view UNNAMED[] = {"(none)", "localhost"};
    char host[CONTROLLER_ID_SIZE_MAX + 1] = {};
    if (server.controllerId.empty() && gethostname(host, sizeof(host) - 1) == 0 &&
        std::ranges::find(UNNAMED, std::string_view(host)) == std::end(UNNAMED)) {
        server.controllerId = host;
    }
}

AgentStatus check_server(ServerSettings& server) {
    if (!server.url.starts_with("https://") && !server.url.starts_with("http://")) {
        return wrong("server", WRONG_SERVER);
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

AgentStatus check_texts(const AgentSettings& settings) {
    DayWindow window;
    if (!settings.window.empty() && !parse_window(settings.window, window)) {
        return wrong("window", "must be HH:MM-HH:MM, not \"" + settings.window + "\"");
    }
    for (const std::string& attribute : settings.attributes) {
        if (attribute.find('=') == std::string::npos || attribute.starts_with('=')) {
            return wrong("attribute", "must be NAME=VALUE, not \"" + attribute + "\"");
        }
    }
    for (const std::string& source : settings.deltaSources) {
        const size_t end = source.find("=/");
        if (end == std::string::npos || find_module(source.substr(0, end)) == nullptr) {
            return wrong("delta-source",
                         "must be PARTITION=PATH with an absolute path, not \"" + source + "\"");
        }
    }
    return {};
}

AgentStatus check_package(const AgentSettings& settings, Keyring& keyring) {
    const PackageStatus loaded = load_keyring(settings.keyring, settings.crl, keyring);
    if (!loaded.ok()) {
        return wrong("keyring", loaded.text);
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

AgentStatus parse_switch(const char* setting, const std::string& text, bool& isOn) {
    constexpr std::array<const char*, 2> CHOICES = {"on", "off"};
    isOn = text == CHOICES[0];
    return isOn || text == CHOICES[1] ? AgentStatus{} : wrong_choice(setting, CHOICES, text);
}

AgentStatus complete_local_settings(AgentSettings& settings) {
    AgentStatus status = check_values(settings, true);
    if (!status.ok()) {
        return status;
    }
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
    AgentStatus status = check_values(settings, false);
    if (status.ok()) {
        status = complete_local_settings(settings);
    }
    if (status.ok()) {
        status = check_server(settings.server);
    }
    if (status.ok()) {
        status = read_tokens(settings);
    }
    if (status.ok()) {
        status = check_texts(settings);
    }
    return status.ok() ? check_package(settings, keyring) : status;
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
