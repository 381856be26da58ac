// The settings of corvo_commit, from its configuration file and its command line.
#ifndef COMMIT_SETTINGS_H
#define COMMIT_SETTINGS_H

#include <stdint.h>

#include <string>
#include <vector>

#include "commit/procedure.h"
#include "commit/record.h"

constexpr char COMMIT[] = "corvo_commit";
constexpr char COMMIT_SETTINGS_PATH[] = "/etc/corvo/commit.conf";

// The values as they were given. A setting's name is that of the field, with "-" before a
// lower-case letter instead of a capital ("slot-from").
struct CommitSettings {
    TrialSettings trial;  // "deadline", "interval", "start-limit" and unarmedSwitch
    std::string slotFrom = "command-line";  // or "root-device"
    std::string wordA = "bootsystem=A";     // on the kernel's command line
    std::string wordB = "bootsystem=B";
    std::string rootA;  // device of the root file system, as on the command line or as a node
    std::string rootB;
    std::vector<std::string> healthCommands;  // "health-command"
    uint32_t healthTimeoutS = 30;             // "health-timeout"
    std::string unarmedSwitch = "try";        // or "accept"
    std::string stateFolder = COMMIT_FOLDER;
    std::string restartCommand = "reboot";
};

// Checks and completes the settings. Returns "", or a line that names the wrong setting.
std::string complete_settings(CommitSettings& settings);

#endif  // COMMIT_SETTINGS_H
