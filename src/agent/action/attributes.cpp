#include "agent/attributes.h"

#include <string>
#include <vector>

#include "agent/action.h"
#include "agent/camera_state.h"
#include "package/camera_rules.h"
#include "package/modules.h"
#include "package/outcome.h"
#include "trial.h"

namespace {

// Returns the settings "attribute", split into names and values.
DdiAttributes set_attributes(const AgentSettings& settings) {
    DdiAttributes attributes;
    for (const std::string& attribute : settings.attributes) {
        const size_t equals = attribute.find('=');
        attributes.emplace_back(attribute.substr(0, equals), attribute.substr(equals + 1));
    }
    return attributes;
}

// Without a version file, this is the version that the agent installed last.
std::string running_version(const AgentSettings& settings) {
    std::string version;
    if (settings.versionFile.empty()) {
        std::vector<HistoryEntry> history;
        if (!load_history(settings.stateFolder, history).ok()) {
            return "unknown";
        }
        for (const HistoryEntry& entry : history) {
            version = entry.succeeded ? entry.version : version;
        }
        return version.empty() ? "unknown" : version;
    }
    return read_running_version(settings.versionFile, version).ok() ? version : "unknown";
}

}  // namespace

DdiAttributes camera_attributes(const AgentSettings& settings) {
    DdiAttributes attributes = set_attributes(settings);
    attributes.emplace_back("version", running_version(settings));
    std::string modules;
    for (const OtaPackageEntry& entry : package_entries()) {
        modules += (modules.empty() ? "" : ",") + std::string(entry.partitionName);
    }
    const char slot = boot_slot();
    const Trial trial = read_trial(slot);
    attributes.emplace_back("slot", std::string(1, slot));
    if (trial.isRecorded) {
        attributes.emplace_back("committed", std::string(1, trial.committed));
        attributes.emplace_back("trial", trial.isUndecided ? std::string(1, trial.tried) : "no");
        // The server keeps an attribute that is not sent, so the end of the failure is sent too.
        attributes.emplace_back("fallback", trial.reason.empty() ? "no" : trial.reason);
    }
    attributes.emplace_back("outcome", outcome_words(outcome_record()));
    attributes.emplace_back("modules", modules);
    return attributes;
}
