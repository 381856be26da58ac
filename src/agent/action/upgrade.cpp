#include "upgrade.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "agent/camera_state.h"
#include "agent/check_settings.h"
#include "agent/judge.h"
#include "base/monotonic_clock.h"
#include "fetch.h"
#include "package/modules.h"
#include "package/outcome.h"
#include "package/request.h"
#include "patience.h"
#include "restart.h"
#include "result.h"
#include "trial.h"

namespace {

constexpr int64_t MS_PER_S = 1000;
// While an upgrade runs, the server is polled again after this time, to answer cancellations.
constexpr int64_t WATCH_MS = 600 * MS_PER_S;
// How long the agent waits for another sender's request on which no service seems to work.
constexpr int64_t OTHERS_PATIENCE_MS = 600 * MS_PER_S;
constexpr int32_t MINUTES_PER_HOUR = 60;
constexpr int64_t NO_PROCESS = 0;  // a process id that matches no sender

bool is_inside_window(const std::string& text) {
    DayWindow window;
    if (text.empty() || !parse_window(text, window)) {
        return true;
    }
    const time_t now = time(nullptr);
    tm local = {};
    localtime_r(&now, &local);
    return is_inside(window, local.tm_hour * MINUTES_PER_HOUR + local.tm_min);
}

// Checks for an upgrade of another sender, during which slot and outcome record are not reliable. A
// request of another sender in the queue, or taken from it, may mean such an upgrade. The wait for
// it is limited, because the queue looks the same after the service has discarded an empty request.
// Returns what to wait for, or "".
std::string others_upgrade(Agent& agent) {
    constexpr char UNDER_WAY[] = "the end of another upgrade, and the restart after it";
    // An upgrade has begun since the camera's start: slot and outcome record may not describe the
    // running system.
    if (upgrade_has_begun()) {
        return service_is_busy(NO_PROCESS) ? UNDER_WAY
                                           : "a restart: another upgrade has ended without one";
    }
    if (queue_use(getpid()) != QueueUse::BY_OTHERS) {
        agent.camera.othersSinceMs = 0;
        return "";
    }
    if (agent.camera.othersSinceMs == 0) {
        agent.camera.othersSinceMs = corvo::monotonic_ms();
    }
    return corvo::monotonic_ms() - agent.camera.othersSinceMs < OTHERS_PATIENCE_MS ? UNDER_WAY : "";
}

std::string reason_to_wait(const Agent& agent, const DdiAction& offer) {
    std::string message;
    // An upgrade would overwrite the system to which the camera returns if the trial fails.
    if (read_trial().isUndecided) {
        return WAITS_FOR_COMMIT;
    }
    if (offer.outsideWindow) {
        return "the server's maintenance window";
    }
    if (offer.update == DdiHandling::ATTEMPT && !is_inside_window(agent.settings.window)) {
        return "the window " + agent.settings.window;
    }
    return camera_is_fit(agent.settings.fitnessCommand, message) ? "" : message;
}

PackageStatus make_request(const Agent& agent, const Manifest& manifest, OtaMessage& request) {
    if (manifest.combined()) {
        return request_combined(agent.package.folder.path, manifest.package, manifest, request);
    }
    std::vector<const OtaPackageEntry*> modules;
    for (const ManifestModule& module : manifest.modules) {
        modules.push_back(find_module(module.name));
    }
    return request_files(agent.package.folder.path, modules, request);
}

bool lacks_files(const Agent& agent, const Manifest& manifest) {
    OpenFolder folder;
    struct stat status = {};
    // Of a chunked image the file of its frames is offered, and the image is stored.
    const auto stored_name = [&manifest](const std::string& offered) {
        for (const ManifestModule& module : manifest.modules) {
            if (module.chunked && module.chunked->frames.name == offered) {
                return module.file;
            }
        }
        return offered;
    };
    return open_folder(agent.package.folder, folder).ok() &&
           std::ranges::any_of(agent.action.files, [&](const OfferedFile& file) {
               return !find_entry(folder, stored_name(file.name), status);
           });
}

// Called when no service works on the request any more and the camera has not restarted.
AgentStatus end_without_restart(Agent& agent) {
    if (take_request_back(static_cast<long>(agent.action.processId))) {
        return finish_action(agent, false, "the upgrade service did not take the request");
    }
    if (service_is_busy(agent.action.processId)) {
        return {};  // the service took the request just now
    }
    char slot = '?';
    if (!wait_for_slot(agent, slot)) {
        return agent_stopped();
    }
    if (slot != agent.action.slotBefore) {
        // The next start of the camera, whenever it is, may start the new system. The result is
        // determined then.
        agent.camera.awaitsRestart = true;
        wait_for(agent, slot == '?' ? "a restart: the slot is unknown"
                                    : "a restart: the slot is switched");
        return {};
    }
    return finish_action(
        agent, false,
        "the upgrade service ended without a restart: " + outcome_words(outcome_record()));
}

// Watches the upgrade until the camera restarts, which ends this process, or the service has ended.
// Returns after WATCH_MS at the latest.
AgentStatus watch_upgrade(Agent& agent) {
    const int64_t begin = corvo::monotonic_ms();
    int64_t busyAt = begin;
    while (corvo::monotonic_ms() - begin < WATCH_MS) {
        // The missing restart may take days. Polls continue meanwhile, and each checks only once.
        if (!agent.camera.awaitsRestart && !wait_ms(agent, CHECK_INTERVAL_MS)) {
            return agent_stopped();
        }
        const int64_t now = corvo::monotonic_ms();
        if (service_is_busy(agent.action.processId)) {
            agent.camera.awaitsRestart = false;
            busyAt = now;
        } else if (agent.camera.awaitsRestart || now - busyAt >= PATIENCE_MS) {
            return end_without_restart(agent);
        }
    }
    return {};
}

// Posts the request. The record with ACTION_COMMITTED and this process's id must be stored already.
AgentStatus post(Agent& agent) {
    Manifest manifest;
    OtaMessage request = {};
    int queue = -1;
    PackageStatus status = parse_manifest(agent.action.manifest, manifest);
    if (status.ok()) {
        // The commit may have been made by an earlier process, so the package is checked again.
        if (!wait_for_card(agent)) {
            return agent_stopped();
        }
        if (waits_for_card(agent)) {
            return {};
        }
        status = check_content(agent, manifest);
        if (!status.ok() && waits_for_card(agent)) {
            return {};
        }
    }
    if (status.ok()) {
        status = make_request(agent, manifest, request);
    }
    if (status.ok()) {
        status = open_request_queue(queue);
    }
    if (status.ok()) {
        // The process id is the message type, by which take_request_back() finds the request.
        status = post_request(queue, request, static_cast<long>(agent.action.processId));
    }
    if (!status.ok()) {
        return finish_action(agent, false, status.text);
    }
    agent.action.stage = ACTION_POSTED;
    AgentStatus stored = store(agent);
    if (!stored.ok()) {
        return stored;
    }
    log_action(agent, "request posted, " + std::to_string(agent.action.attempts) + " of at most " +
                          std::to_string(ATTEMPTS_MAX));
    (void)send_status(agent, DdiExecution::PROCEEDING,
                      "upgrading, request " + std::to_string(agent.action.attempts));
    return watch_upgrade(agent);
}

// Stores the state that the result depends on before the request is posted. `mark` is the
// queue_mark() from before the queue was checked.
AgentStatus commit(Agent& agent, const Manifest& manifest, const std::string& mark) {
    char slot = '?';
    if (!wait_for_slot(agent, slot)) {
        return agent_stopped();
    }
    agent.action.manifest = format_manifest(manifest);
    agent.action.slotBefore = slot;
    agent.action.recordBefore = outcome_record();
    agent.action.bootId = agent.camera.bootId;
    agent.action.processId = getpid();
    agent.action.trialBefore = read_trial(slot).mark;
    if (agent.action.slotBefore == '?') {
        return finish_action(agent, false, "the boot environment does not name the current slot");
    }
    ++agent.action.attempts;
    agent.action.downloadOnly = false;
    agent.action.stage = ACTION_COMMITTED;
    AgentStatus status = store(agent);
    if (!status.ok()) {
        return status;
    }
    // Another sender may have posted a request while the record was written. Slot and outcome
    // record are not reliable then.
    if (upgrade_has_begun() || queue_mark() != mark) {
        --agent.action.attempts;
        agent.action.stage = ACTION_WAITING;
        return store(agent);
    }
    return post(agent);
}

}  // namespace

AgentStatus start_upgrade(Agent& agent, const DdiAction& offer) {
    if (offer.update == DdiHandling::SKIP && !offer.outsideWindow) {
        agent.action.downloadOnly = true;
        AgentStatus status = store(agent);
        if (status.ok()) {
            status = send_status(agent, DdiExecution::DOWNLOADED, "downloaded and verified");
        }
        return status.result == AGENT_GONE ? AgentStatus{} : status;
    }
    std::string reason = reason_to_wait(agent, offer);
    if (agent.stop) {
        return agent_stopped();  // the signal may have killed the fitness command
    }
    if (!reason.empty()) {
        wait_for(agent, reason);
        return {};
    }
    if (waits_for_card(agent)) {
        return {};
    }
    Manifest manifest;
    PackageStatus packageStatus;
    if (!accept_manifest(agent, manifest, packageStatus)) {
        return agent_stopped();
    }
    if (agent.action.attempts == 0 && lacks_files(agent, manifest)) {
        log_action(agent, "the package in " + agent.package.folder.path +
                              " is incomplete, downloading again");
        agent.action.stage = ACTION_DOWNLOADING;
        agent.package.checked.clear();
        return store(agent);
    }
    if (packageStatus.ok()) {
        packageStatus = check_content(agent, manifest);
    }
    if (!packageStatus.ok()) {
        return waits_for_card(agent) ? AgentStatus{}
                                     : finish_action(agent, false, packageStatus.text);
    }
    bool serviceRuns = upgrade_has_begun();
    const auto check = [&serviceRuns] {
        return serviceRuns = serviceRuns || queue_use(getpid()) != QueueUse::NO_QUEUE;
    };
    if (!wait_until(agent, check)) {
        return agent_stopped();
    }
    if (!serviceRuns) {
        return finish_action(agent, false, "the upgrade service does not run");
    }
    const std::string mark = queue_mark();
    reason = others_upgrade(agent);
    if (!reason.empty()) {
        wait_for(agent, reason);
        return {};
    }
    end_wait(agent);
    return commit(agent, manifest, mark);
}

AgentStatus follow_upgrade(Agent& agent) {
    if (agent.action.bootId != agent.camera.bootId) {
        return judge_restart(agent);
    }
    if (agent.action.stage == ACTION_COMMITTED) {
        switch (queue_use(agent.action.processId)) {
            case QueueUse::UNUSED: {
                // The request was posted and processed, and the service has been started again with
                // a new queue.
                if (upgrade_has_begun()) {
                    break;
                }
                // The request was not posted. The queue will name this process as the last sender,
                // so the record must name it, too.
                agent.action.processId = getpid();
                const AgentStatus status = store(agent);
                return status.ok() ? post(agent) : status;
            }
            case QueueUse::BY_US: {
                agent.action.stage = ACTION_POSTED;
                AgentStatus status = store(agent);
                if (!status.ok()) {
                    return status;
                }
                break;
            }
            case QueueUse::BY_OTHERS:
            case QueueUse::NO_QUEUE:
                break;
        }
    }
    return watch_upgrade(agent);
}
