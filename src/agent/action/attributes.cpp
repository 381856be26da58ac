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

// Without a version file, this is the version that the agent installed last, unless the camera has
// returned to the slot that ran before.
std::string running_version(const AgentSettings& settings, char slot) {
    if (settings.versionFile.empty()) {
        std::vector<HistoryEntry> history;
        (void)load_history(settings.stateFolder, history);  // an unreadable history counts as empty
        const HistoryEntry* const last = last_success(history);
        const bool isKnown = last != nullptr && !last->version.empty() && last->slotBefore != slot;
        return isKnown ? last->version : "unknown";
    }
    std::string version;
    return read_running_version(settings.versionFile, version).ok() ? version : "unknown";
}

}  // namespace

DdiAttributes camera_attributes(const AgentSettings& settings) {
    DdiAttributes attributes = set_attributes(settings);
    const char slot = boot_slot();
    attributes.emplace_back("version", running_version(settings, slot));
    std::string modules;
    for (const OtaPackageEntry& entry : package_entries()) {
        modules += (modules.empty() ? "" : ",") + std::string(entry.partitionName);
    }
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
