// How far an upgrade has come, told from the lines that the service publishes.
//
// The flash driver's percentages go to the service's standard output only, so what is counted here
// is steps and not bytes: the request taken, the applications stopped, each module written and
// (where images come as files) read back, the verdict, the restart.
#ifndef TOOLS_OTACTL_PROGRESS_H
#define TOOLS_OTACTL_PROGRESS_H

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
    std::vector<ModuleProgress> modules;  // as the request names them
    bool taken;                           // the service has the request
    bool applicationsStopped;
    Verdict verdict;
    bool restarting;                // the last line of an upgrade was seen
    const OtaPackageEntry* failed;  // the module that could not be written; null: none so far
};

// The state before a request of these modules is posted.
Progress start_progress(const std::vector<const OtaPackageEntry*>& modules, bool readsBack);

// Takes one line's text. Returns what to tell the user, lines separated by "\n", or "" when the
// line says nothing new about the upgrade.
std::string advance_progress(Progress& progress, std::string_view text);

// Steps done, in percent.
int progress_percent(const Progress& progress);

// What is being done now, in a few words.
std::string current_step(const Progress& progress);

#endif  // TOOLS_OTACTL_PROGRESS_H
