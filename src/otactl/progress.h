// Derives the progress of an upgrade from the log lines that the service publishes.
//
// The flash driver prints percentages to the service's standard output only, so progress is counted
// in steps and not in bytes: request received, applications stopped, each module written and (if
// each image is a separate file) read back, verdict, restart.
#ifndef OTACTL_PROGRESS_H
#define OTACTL_PROGRESS_H

#include <string>
#include <string_view>
#include <vector>

#include "ota/ota_package.h"

enum class ModuleStage { WAITING, WRITING, WRITTEN, VERIFIED, FAILED };
enum class Verdict { NONE, SUCCESS, FAILURE };

struct ModuleProgress {
    const OtaPackageEntry* entry;
    ModuleStage stage;
};

struct Progress {
    bool readsBack;                       // modules are compared after they are written
    std::vector<ModuleProgress> modules;  // in the order of the request
    bool taken;                           // the service has received the request
    bool applicationsStopped;
    Verdict verdict;
    bool restarting;                // the last log line of an upgrade was received
    const OtaPackageEntry* failed;  // the module that failed last; null: no module failed so far
};

// Returns the state before a request for these modules is posted.
Progress start_progress(const std::vector<const OtaPackageEntry*>& modules, bool readsBack);

// Updates the progress from the text of one log line. Returns the text to show to the user, with
// lines separated by "\n", or "" when the log line contains nothing new about the upgrade.
std::string advance_progress(Progress& progress, std::string_view text);

// Returns the completed steps in percent.
int progress_percent(const Progress& progress);

// Names the current step in a few words.
std::string current_step(const Progress& progress);

#endif  // OTACTL_PROGRESS_H
