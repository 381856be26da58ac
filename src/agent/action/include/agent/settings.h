// The agent's settings, from its configuration file and its command line. Both use the same names.
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
// The agent's folder below the download folder. All files in it that the current action does not
// name are removed.
constexpr char AGENT_FOLDER[] = "agent/";
constexpr char AGENT_SETTINGS_PATH[] = "/etc/corvo/agent.conf";

// Value of "proxy" for direct connections.
constexpr char NO_PROXY[] = "none";

// Value of "version-file" that turns the comparison off: older packages are accepted, too.
constexpr char NO_VERSION_FILE[] = "none";

// The values as they were given. A setting's name is that of the field, with "-" before a
// lower-case letter instead of a capital ("controller-id").
struct AgentSettings {
    ServerSettings server;  // "server", "tenant", "controller-id", "certificate", "key", "ca",
                            // "proxy", "rate-limit", "connect-timeout", "stall-timeout"
    std::string targetTokenFile;
    std::string gatewayTokenFile;
    bool allowUnencryptedToken = false;  // permits a token with a server URL of http

    std::string keyring;     // PEM file of root certificates
    std::string crl;         // PEM file of revocation lists, or empty
    std::string compatible;  // this camera's hardware type
    // The running system's version file, or NO_VERSION_FILE; complete_settings() turns the latter
    // into an empty text.
    std::string versionFile;
    bool checkPartitions = true;

    std::string downloadFolder = "/media/mmcblk0p1/ota/";
    std::string requireMount = "auto";  // or "yes", "no"
    std::string stateFolder = "/config/agent/";
    std::vector<std::string> attributes;  // "name=value"

    std::string confirm = "auto";  // or "ask"
    std::string window;            // "02:00-04:00", local time, or empty: always
    std::string fitnessCommand;
};

// A time window within a day, in minutes after midnight. If `from` is greater than `until`, the
// window includes midnight.
struct DayWindow {
    int32_t from = 0;
    int32_t until = 0;  // exclusive; equal to `from`: the whole day
};

// Parses "HH:MM-HH:MM". Returns whether the text has this form.
bool parse_window(const std::string& text, DayWindow& window);

bool is_inside(const DayWindow& window, int32_t minuteOfDay);

// Checks and completes the settings that are needed without a server and without packages: folders
// get a "/" at the end, and a missing controller id becomes the host name. Returns AGENT_OK, or
// AGENT_MALFORMED with a line that names the setting.
AgentStatus complete_local_settings(AgentSettings& settings);

// Checks and completes all settings; reads the token and the keyring. Returns the codes of
// complete_local_settings().
AgentStatus complete_settings(AgentSettings& settings, Keyring& keyring);

// Returns the agent's folder below the download folder. If a mounted card is required, the folder
// must be neither on the root file system nor on that of the parent folder of mounts ("/media").
PackageFolder package_folder(const AgentSettings& settings);

// Returns the settings "attribute", split into names and values.
DdiAttributes set_attributes(const AgentSettings& settings);

#endif  // AGENT_SETTINGS_H
