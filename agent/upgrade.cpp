// From ACTION_WAITING to the verdict: the request, and what becomes of it.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "agent/camera.h"
#include "agent/steps.h"
#include "agent/verdict.h"
#include "package/camera.h"
#include "package/modules.h"
#include "package/outcome.h"
#include "package/request.h"
#include "package/version.h"

namespace {

constexpr uint32_t LOOK_MS = 500;
constexpr uint64_t MS_PER_S = 1000;
constexpr uint64_t PATIENCE_MS = SERVICE_PATIENCE_S * MS_PER_S;
// While an upgrade goes on the server is asked again after this time, cancellations answered.
constexpr uint64_t WATCH_MS = 600 * MS_PER_S;
// So long a request of somebody else's is respected that nobody is seen to work on.
constexpr uint64_t OTHERS_PATIENCE_MS = 600 * MS_PER_S;
constexpr int32_t MINUTES_PER_HOUR = 60;

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

// Somebody else's request stands in the queue or was taken from it: slot and record may be those
// of an upgrade under way. A service that threw an empty request away looks the same for ever.
bool others_upgrade(Agent& agent) {
    // Since the camera's last start: slot and record may not be those of what runs.
    if (upgrade_has_begun()) {
        return true;
    }
    if (queue_use(getpid()) != QueueUse::BY_OTHERS) {
        agent.othersSinceMs = 0;
        return false;
    }
    if (agent.othersSinceMs == 0) {
        agent.othersSinceMs = monotonic_ms();
    }
    return monotonic_ms() - agent.othersSinceMs < OTHERS_PATIENCE_MS;
}

std::string reason_to_wait(const Agent& agent, const DdiAction& offer) {
    std::string words;
    if (offer.outsideWindow) {
        return "the server's maintenance window";
    }
    if (offer.update == DdiHandling::ATTEMPT && !is_inside_window(agent.settings.window)) {
        return "the window " + agent.settings.window;
    }
    return camera_is_fit(agent.settings.fitnessCommand, words) ? "" : words;
}

// Every byte again, but for files that this process has seen whole and nobody has touched since.
PackageStatus check_content(Agent& agent, const Manifest& manifest) {
    for (const PackageFile& file : package_files(manifest)) {
        const std::string path = agent.folder + file.name;
        const auto seen = std::ranges::find(agent.checked, path, &CheckedFile::path);
        if (seen != agent.checked.end()) {
            if (check_unchanged(*seen).ok()) {
                continue;
            }
            agent.checked.erase(seen);
        }
        CheckedFile checked;
        PackageStatus status = check_file(
            path, file, [](uint64_t) {}, checked);
        if (!status.ok()) {
            return status;
        }
        agent.checked.push_back(std::move(checked));
    }
    return {};
}

PackageStatus make_request(const Agent& agent, const Manifest& manifest, OtaMessage& request) {
    if (manifest.combined()) {
        return request_combined(agent.folder, manifest.package, manifest, request);
    }
    std::vector<const OtaPackageEntry*> modules;
    for (const ManifestModule& module : manifest.modules) {
        modules.push_back(find_module(module.name));
    }
    return request_files(agent.folder, modules, request);
}

// Waits for a service that is still being started. Returns whether there is one.
bool wait_for_service(const Agent& agent) {
    const uint64_t since = monotonic_ms();
    while (queue_use(getpid()) == QueueUse::NO_QUEUE) {
        if (monotonic_ms() - since >= PATIENCE_MS || !pause(agent, LOOK_MS)) {
            return false;
        }
    }
    return true;
}

// No service is at work on the request any more, and the camera has not restarted.
AgentStatus end_without_restart(Agent& agent) {
    if (take_request_back(static_cast<long>(agent.action.processId))) {
        return conclude(agent, false, "the upgrade service did not take the request");
    }
    if (service_is_busy(agent.action.processId)) {
        return {};  // it was just about to take it
    }
    const char slot = boot_slot();
    if (is_other_slot(slot, agent.action.slotBefore)) {
        // Whenever the camera starts next, the new system runs: that is when it is known.
        wait_for(agent, "a restart: the slot is switched");
        return {};
    }
    return conclude(
        agent, false,
        "the upgrade service ended without a restart: " + outcome_words(outcome_record()));
}

// Looks on until the camera restarts, which ends this process, or nothing happens any more.
AgentStatus watch_upgrade(Agent& agent) {
    const uint64_t begin = monotonic_ms();
    uint64_t seenBusy = begin;
    while (monotonic_ms() - begin < WATCH_MS) {
        if (!pause(agent, LOOK_MS)) {
            return agent_fault(AGENT_STOPPED, "");
        }
        const uint64_t now = monotonic_ms();
        if (service_is_busy(agent.action.processId)) {
            seenBusy = now;
        } else if (now - seenBusy >= PATIENCE_MS) {
            return end_without_restart(agent);
        }
    }
    return {};
}

// ACTION_COMMITTED is on the medium, under this process's id.
AgentStatus post(Agent& agent) {
    Manifest manifest;
    OtaMessage request = {};
    int queue = -1;
    PackageStatus status = parse_manifest(agent.action.manifest, manifest);
    if (status.ok()) {
        // Another process may have committed, and time has gone by.
        status = check_content(agent, manifest);
    }
    if (status.ok()) {
        status = make_request(agent, manifest, request);
    }
    if (status.ok()) {
        status = open_request_queue(queue);
    }
    if (status.ok()) {
        // The type is what a request can be taken back by.
        status = post_request(queue, request, static_cast<long>(agent.action.processId));
    }
    if (!status.ok()) {
        return conclude(agent, false, status.text);
    }
    agent.action.stage = ACTION_POSTED;
    AgentStatus stored = store(agent);
    if (!stored.ok()) {
        return stored;
    }
    say(agent, "request posted, " + std::to_string(agent.action.attempts) + " of at most " +
                   std::to_string(ATTEMPTS_MAX));
    (void)tell(agent, DdiExecution::PROCEEDING,
               "upgrading, request " + std::to_string(agent.action.attempts));
    return watch_upgrade(agent);
}

// Early after a start the boot environment or a device node may not be there yet: `look` is asked
// again for a while, until it returns whether it has seen what it wants.
void look_patiently(const Agent& agent, const std::function<bool()>& look) {
    const uint64_t since = monotonic_ms();
    while (!look() && monotonic_ms() - since < PATIENCE_MS && pause(agent, LOOK_MS)) {
    }
}

char patient_boot_slot(const Agent& agent) {
    char slot = '?';
    look_patiently(agent, [&slot] { return (slot = boot_slot()) != '?'; });
    return slot;
}

// Everything that the verdict needs comes onto the medium before the request is out. `mark` is the
// queue's from before it was looked at.
AgentStatus commit(Agent& agent, const Manifest& manifest, const std::string& mark) {
    agent.action.manifest = format_manifest(manifest);
    agent.action.slotBefore = patient_boot_slot(agent);
    agent.action.recordBefore = outcome_record();
    agent.action.bootId = agent.bootId;
    agent.action.processId = getpid();
    if (agent.action.slotBefore == '?') {
        return conclude(agent, false, "the boot environment does not say which slot is used");
    }
    ++agent.action.attempts;
    agent.action.downloadOnly = false;
    agent.action.stage = ACTION_COMMITTED;
    AgentStatus status = store(agent);
    if (!status.ok()) {
        return status;
    }
    // Somebody may have been faster while this was written: then slot and record are worth nothing.
    if (upgrade_has_begun() || queue_mark() != mark) {
        --agent.action.attempts;
        agent.action.stage = ACTION_WAITING;
        return store(agent);
    }
    return post(agent);
}

// What speaks against the new system running: PACKAGE_OK when nothing does or nobody asked.
PackageStatus find_disagreement(const Agent& agent, const Manifest& manifest) {
    if (!agent.settings.versionFile.empty()) {
        std::string version;
        PackageStatus read = read_running_version(agent.settings.versionFile, version);
        if (read.ok() && !std::is_eq(compare_versions(version, manifest.version))) {
            read = package_fault(PACKAGE_DIFFERENT,
                                 "version " + version + " instead of " + manifest.version);
        }
        if (!read.ok()) {
            return read;
        }
    }
    return agent.settings.checkPartitions ? check_partitions(manifest) : PackageStatus{};
}

std::string patient_disagreement(const Agent& agent, const Manifest& manifest) {
    PackageStatus found;
    look_patiently(agent, [&] {
        found = find_disagreement(agent, manifest);
        return found.result != PACKAGE_UNREADABLE;
    });
    return found.text;
}

AgentStatus judge_restart(Agent& agent) {
    Manifest manifest;
    const PackageStatus parsed = parse_manifest(agent.action.manifest, manifest);
    if (!parsed.ok()) {
        return conclude(agent, false, parsed.text);
    }
    AfterRestart seen = {.record = outcome_record(),
                         .recordBefore = agent.action.recordBefore,
                         .slot = patient_boot_slot(agent),
                         .slotBefore = agent.action.slotBefore,
                         .packageThere = false,
                         .partitionsRead = false,
                         .disagreement = "",
                         .attempts = agent.action.attempts};
    if (is_other_slot(seen.slot, seen.slotBefore)) {
        seen.partitionsRead = agent.settings.checkPartitions;
        seen.disagreement = patient_disagreement(agent, manifest);
    } else {
        seen.packageThere = check_content(agent, manifest).ok();
    }
    std::string words;
    switch (judge(seen, words)) {
        case Judgement::SUCCESS:
            return conclude(agent, true, words);
        case Judgement::FAILURE:
            return conclude(agent, false, words);
        case Judgement::AGAIN:
            break;
    }
    // The server may have changed its mind, and the camera may not be fit any more.
    say(agent, words + "; once more");
    (void)tell(agent, DdiExecution::PROCEEDING, words + "; once more");
    agent.action.stage = ACTION_WAITING;
    return store(agent);
}

}  // namespace

AgentStatus start_upgrade(Agent& agent, const DdiAction& offer) {
    if (offer.update == DdiHandling::SKIP && !offer.outsideWindow) {
        agent.action.downloadOnly = true;
        AgentStatus status = store(agent);
        if (status.ok()) {
            status = tell(agent, DdiExecution::DOWNLOADED, "downloaded and verified");
        }
        return status.result == AGENT_GONE ? AgentStatus{} : status;
    }
    std::string reason = reason_to_wait(agent, offer);
    if (!reason.empty()) {
        wait_for(agent, reason);
        return {};
    }
    Manifest manifest;
    PackageStatus taken = read_manifest(agent, manifest);
    if (taken.ok()) {
        taken = check_content(agent, manifest);
    }
    if (!taken.ok()) {
        return conclude(agent, false, taken.text);
    }
    if (!upgrade_has_begun() && !wait_for_service(agent)) {
        return agent.stop ? agent_fault(AGENT_STOPPED, "")
                          : conclude(agent, false, "the upgrade service does not run");
    }
    const std::string mark = queue_mark();
    reason = others_upgrade(agent) ? "the end of another upgrade, and the restart behind it" : "";
    if (!reason.empty()) {
        wait_for(agent, reason);
        return {};
    }
    return commit(agent, manifest, mark);
}

AgentStatus see_through(Agent& agent) {
    if (agent.action.bootId != agent.bootId) {
        return judge_restart(agent);
    }
    if (agent.action.stage == ACTION_COMMITTED) {
        switch (queue_use(agent.action.processId)) {
            case QueueUse::UNUSED: {
                // Posted, done, and the service started once more: this is another one's queue.
                if (upgrade_has_begun()) {
                    break;
                }
                // Not posted. The queue will remember this process, so the record must as well.
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

AgentStatus look_again(Agent& agent) {
    Manifest manifest;
    std::string wrong = parse_manifest(agent.action.manifest, manifest).text;
    if (wrong.empty() && patient_boot_slot(agent) == agent.action.slotBefore) {
        wrong = "the slot was switched back";
    }
    if (wrong.empty()) {
        wrong = patient_disagreement(agent, manifest);
    }
    if (wrong.empty()) {
        return {};
    }
    return conclude(agent, false, "the upgrade succeeded, but something else runs now: " + wrong);
}
