// What the agent is told: its configuration file and its command line, under the same names.
#ifndef AGENT_SETTINGS_H
#define AGENT_SETTINGS_H

#include <stdint.h>

#include <string>
#include <vector>

#include "agent/agent_result.h"
#include "agent/ddi.h"
#include "agent/folder.h"
#include "agent/server.h"
#include "package/certificates.h"

constexpr char AGENT[] = "corvo_agent";
// The agent's own folder below the download folder. Nothing else may lie there: what the action in
// hand does not name is removed.
constexpr char AGENT_FOLDER[] = "agent/";
constexpr char AGENT_SETTINGS_PATH[] = "/etc/corvo/agent.conf";

// Instead of a proxy.
constexpr char NO_PROXY[] = "none";

// Instead of a version file: older packages are accepted, too.
constexpr char NO_VERSION_FILE[] = "none";

// As they were said; names with "-" instead of capitals ("controller-id").
struct AgentSettings {
    ServerSettings server;  // "server", "tenant", "controller-id", "certificate", "key", "ca",
                            // "proxy", "rate-limit", "connect-timeout", "stall-timeout"
    std::string targetTokenFile;
    std::string gatewayTokenFile;
    bool allowUnencryptedToken = false;  // over http

    std::string keyring;     // PEM file of root certificates
    std::string crl;         // PEM file of revocation lists, or empty
    std::string compatible;  // this camera's hardware type
    std::string
        versionFile;  // of the running system, or NO_VERSION_FILE; empty when it is complete
    bool checkPartitions = true;

    std::string downloadFolder = "/media/mmcblk0p1/ota/";
    std::string requireMount = "auto";  // or "yes", "no"
    std::string stateFolder = "/config/agent/";
    std::vector<std::string> attributes;  // "name=value"

    std::string confirm = "auto";  // or "ask"
    std::string window;            // "02:00-04:00", local time, or empty: always
    std::string fitnessCommand;
};

// A span of the day in minutes after midnight. `from` may be behind `until`: over midnight.
struct DayWindow {
    int32_t from = 0;
    int32_t until = 0;  // not included; the same as `from`: the whole day
};

// Reads "HH:MM-HH:MM". Returns whether it is one.
bool parse_window(const std::string& text, DayWindow& window);

bool is_inside(const DayWindow& window, int32_t minuteOfDay);

// Checks the folders and completes them (a "/" at the end) and the controller id (the host's name):
// all that is needed without a server and without a package. Returns AGENT_OK, or AGENT_MALFORMED
// with a line that names the setting.
AgentStatus complete_local_settings(AgentSettings& settings);

// The same of all settings; reads the token and the keyring.
AgentStatus complete_settings(AgentSettings& settings, Keyring& keyring);

// Where the agent's own part of the download folder is, and on which file systems it must not be:
// on the root's, where a mount is required, and on that of the folder that cards are mounted in.
PackageFolder package_folder(const AgentSettings& settings);

// The attributes that were set, taken apart.
DdiAttributes set_attributes(const AgentSettings& settings);

#endif  // AGENT_SETTINGS_H
