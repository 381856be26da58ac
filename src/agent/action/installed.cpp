#include "installed.h"

#include <compare>
#include <utility>
#include <vector>

#include "cli/error_line.h"
#include "package/camera_rules.h"
#include "package/version.h"

DdiVersion find_unreported_system(const AgentSettings& settings, const Trial& trial) {
    std::vector<HistoryEntry> history;
    if (!trial.isRecorded || trial.isUndecided || settings.versionFile.empty() ||
        !load_history(settings.stateFolder, history).ok()) {
        return {};
    }
    const HistoryEntry* const last = last_success(history);
    if (last == nullptr || last->module.empty()) {
        return {};
    }
    // After a fallback was reported, the server also has to know when the camera leaves that
    // system.
    const bool returned = !trial.reason.empty() && trial.committed == last->slotBefore;
    if (!returned && last->installed.empty()) {
        return {};
    }
    const std::string& known = last->installed.empty() ? last->version : last->installed;
    DdiVersion running = {.name = last->module};
    const PackageStatus read = read_running_version(settings.versionFile, running.version);
    return read.ok() && !std::is_eq(compare_versions(running.version, known)) ? running
                                                                              : DdiVersion{};
}

void report_installed(Agent& agent, const DdiPoll& poll) {
    const bool isOffered =
        !poll.deployment.empty() || !poll.confirmation.empty() || !poll.cancellation.empty();
    if (agent.polling.installed.name.empty() || isOffered) {
        return;
    }
    DdiVersion installed = std::exchange(agent.polling.installed, {});
    if (!poll.hasInstalled) {
        return;
    }
    const AgentStatus status = agent.server.send_installed(installed);
    if (status.result == AGENT_UNREACHABLE || status.result == AGENT_STOPPED) {
        agent.polling.installed = std::move(installed);
        return;
    }
    const std::string what = installed.name + " " + installed.version;
    log_action(agent, status.ok() ? "reported as installed: " + what
                                  : "not accepted as installed: " + what + ": " + status.text);
    const AgentStatus stored = store_installed(agent.settings.stateFolder, installed.version);
    if (!stored.ok()) {
        print_error(AGENT, stored.text);
    }
}
