// Checks and completes the agent's settings, and derives from them what the agent uses.
#ifndef AGENT_CHECK_SETTINGS_H
#define AGENT_CHECK_SETTINGS_H

#include <stdint.h>

#include <string>

#include "agent/agent_result.h"
#include "agent/folder.h"
#include "agent/settings.h"
#include "package/certificates.h"

// The agent's folder below the download folder. All files in it that the current action does not
// name are removed.
constexpr char AGENT_FOLDER[] = "agent/";

// A time window within a day, in minutes after midnight. If `from` is greater than `until`, the
// window includes midnight.
struct DayWindow {
    int32_t from = 0;
    int32_t until = 0;  // exclusive; equal to `from`: the whole day
};

// Parses "HH:MM-HH:MM". Returns whether the text has this form.
bool parse_window(const std::string& text, DayWindow& window);

bool is_inside(const DayWindow& window, int32_t minuteOfDay);

// Parses "on" or "off". Returns AGENT_OK, or AGENT_MALFORMED with a line that names the setting.
AgentStatus parse_switch(const char* setting, const std::string& text, bool& isOn);

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

#endif  // AGENT_CHECK_SETTINGS_H
