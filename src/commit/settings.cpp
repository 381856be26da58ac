#include "commit/settings.h"

#include <array>
#include <utility>

namespace {

constexpr uint32_t SECONDS_MAX = 86400;
constexpr uint32_t START_LIMIT_MAX = 1000;
constexpr size_t FOLDER_SIZE_MAX = 200;

struct Range {
    const char* setting;
    uint32_t value;
    uint32_t from;
    uint32_t until;
};

}  // namespace

std::string complete_settings(CommitSettings& settings) {
    const std::array<Range, 4> ranges = {
        {{"deadline", settings.trial.deadlineS, 1, SECONDS_MAX},
         {"interval", settings.trial.intervalS, 1, SECONDS_MAX},
         {"health-timeout", settings.healthTimeoutS, 1, SECONDS_MAX},
         {"start-limit", settings.trial.startLimit, START_LIMIT_MIN, START_LIMIT_MAX}}};
    for (const Range& range : ranges) {
        if (range.value < range.from || range.value > range.until) {
            return std::string(range.setting) + ": must be from " + std::to_string(range.from) +
                   " to " + std::to_string(range.until);
        }
    }
    const bool fromRoot = settings.slotFrom == "root-device";
    if (!fromRoot && settings.slotFrom != "command-line") {
        return "slot-from: must be command-line or root-device, not \"" + settings.slotFrom + "\"";
    }
    if (fromRoot && (settings.rootA.empty() || settings.rootB.empty())) {
        return "slot-from: root-device needs root-a and root-b";
    }
    if (settings.wordA == settings.wordB || (fromRoot && settings.rootA == settings.rootB)) {
        return std::string(fromRoot ? "root-b" : "word-b") + ": must differ from that of slot A";
    }
    if (settings.unarmedSwitch != "try" && settings.unarmedSwitch != "accept") {
        return "unarmed-switch: must be try or accept, not \"" + settings.unarmedSwitch + "\"";
    }
    settings.trial.adoptSwitched = settings.unarmedSwitch == "accept";
    if (!settings.stateFolder.starts_with('/') || settings.stateFolder.size() > FOLDER_SIZE_MAX) {
        return "state-folder: must be an absolute path of at most " +
               std::to_string(FOLDER_SIZE_MAX) + " characters";
    }
    settings.stateFolder += settings.stateFolder.ends_with('/') ? "" : "/";
    return "";
}
