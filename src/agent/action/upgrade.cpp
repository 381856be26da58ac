// From ACTION_WAITING to the verdict: the request, and what becomes of it.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "agent/camera_state.h"
#include "agent/steps.h"
#include "agent/verdict.h"
#include "package/camera_rules.h"
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
constexpr int64_t NOBODY = 0;  // in the place of a process id

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
// Returns what is to be waited for, or "".
std::string others_upgrade(Agent& agent) {
    constexpr char UNDER_WAY[] = "the end of another upgrade, and the restart after it";
    // Since the camera's last start: slot and record may not be those of what runs.
    if (upgrade_has_begun()) {
        return service_is_busy(NOBODY) ? UNDER_WAY
                                       : "a restart: another upgrade has ended without one";
    }
    if (queue_use(getpid()) != QueueUse::BY_OTHERS) {
        agent.othersSinceMs = 0;
        return "";
    }
    if (agent.othersSinceMs == 0) {
        agent.othersSinceMs = monotonic_ms();
    }
    return monotonic_ms() - agent.othersSinceMs < OTHERS_PATIENCE_MS ? UNDER_WAY : "";
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
            path, file, [](uint64_t) {}, checked, Links::REFUSED);
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

AgentStatus stopped() {
    return agent_fault(AGENT_STOPPED, "");
}

// Early after a start the service, the boot environment, a device node or the card may not be there
// yet: `look` is asked again for a while, until it returns whether it has seen what it wants.
// Returns false when the agent is to end: what was not seen by then says nothing.
bool look_patiently(const Agent& agent, const std::function<bool()>& look) {
    const uint64_t since = monotonic_ms();
    while (!look()) {
        if (agent.stop) {
            return false;
        }
        if (monotonic_ms() - since >= PATIENCE_MS) {
            return true;
        }
        if (!pause(agent, LOOK_MS)) {
            return false;
        }
    }
    return true;
}

// Whether what was read is not just missing for the moment.
bool is_there(const PackageStatus& status) {
    return status.result != PACKAGE_UNREADABLE && status.result != PACKAGE_MISSING;
}

// `slot` is '?' when it cannot be determined.
bool wait_for_slot(const Agent& agent, char& slot) {
    return look_patiently(agent, [&slot] { return (slot = boot_slot()) != '?'; });
}

// The service deletes images but never the manifest: with it in place the card is mounted, and an
// image that is missing is not going to appear.
bool wait_for_card(const Agent& agent) {
    return look_patiently(agent, [&agent] {
        OpenFolder folder;
        struct stat status = {};
        return open_folder(agent.place, folder).ok() &&
               find_entry(folder, agent.action.manifestFile, status);
    });
}

bool lacks_files(const Agent& agent) {
    OpenFolder folder;
    struct stat status = {};
    return open_folder(agent.place, folder).ok() &&
           std::ranges::any_of(agent.action.files, [&](const OfferedFile& file) {
               return !find_entry(folder, file.name, status);
           });
}

// No service is at work on the request any more, and the camera has not restarted.
AgentStatus end_without_restart(Agent& agent) {
    if (take_request_back(static_cast<long>(agent.action.processId))) {
        return conclude(agent, false, "the upgrade service did not take the request");
    }
    if (service_is_busy(agent.action.processId)) {
        return {};  // it was just about to take it
    }
    char slot = '?';
    if (!wait_for_slot(agent, slot)) {
        return stopped();
    }
    if (slot != agent.action.slotBefore) {
        // Whenever the camera starts next, the new system may run: that is when it is known.
        agent.awaitsRestart = true;
        wait_for(agent, slot == '?' ? "a restart: the slot is unknown"
                                    : "a restart: the slot is switched");
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
        // A restart may take days, while the server is asked as usual: one look is enough then.
        if (!agent.awaitsRestart && !pause(agent, LOOK_MS)) {
            return stopped();
        }
        const uint64_t now = monotonic_ms();
        if (service_is_busy(agent.action.processId)) {
            agent.awaitsRestart = false;
            seenBusy = now;
        } else if (agent.awaitsRestart || now - seenBusy >= PATIENCE_MS) {
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
        if (!wait_for_card(agent)) {
            return stopped();
        }
        if (waits_for_card(agent)) {
            return {};
        }
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

// Everything that the verdict needs comes onto the medium before the request is out. `mark` is the
// queue's from before it was looked at.
AgentStatus commit(Agent& agent, const Manifest& manifest, const std::string& mark) {
    char slot = '?';
    if (!wait_for_slot(agent, slot)) {
        return stopped();
    }
    agent.action.manifest = format_manifest(manifest);
    agent.action.slotBefore = slot;
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

// `wrong` is empty when nothing speaks against it. Returns as look_patiently() does.
bool wait_for_disagreement(const Agent& agent, const Manifest& manifest, std::string& wrong) {
    return look_patiently(agent, [&] {
        const PackageStatus found = find_disagreement(agent, manifest);
        wrong = found.text;
        return is_there(found);
    });
}

AgentStatus judge_restart(Agent& agent) {
    Manifest manifest;
    const PackageStatus parsed = parse_manifest(agent.action.manifest, manifest);
    if (!parsed.ok()) {
        return conclude(agent, false, parsed.text);
    }
    say(agent, "the camera has restarted: what runs now decides");
    AfterRestart seen = {.record = outcome_record(),
                         .recordBefore = agent.action.recordBefore,
                         .slot = '?',
                         .slotBefore = agent.action.slotBefore,
                         .packageThere = false,
                         .partitionsRead = false,
                         .disagreement = "",
                         .attempts = agent.action.attempts};
    if (!wait_for_slot(agent, seen.slot)) {
        return stopped();
    }
    if (is_other_slot(seen.slot, seen.slotBefore)) {
        seen.partitionsRead = agent.settings.checkPartitions;
        if (!wait_for_disagreement(agent, manifest, seen.disagreement)) {
            return stopped();
        }
    } else {
        if (!wait_for_card(agent)) {
            return stopped();
        }
        seen.packageThere = check_content(agent, manifest).ok();
    }
    std::string words;
    // Nothing is concluded from a package that may lie on a card which is not in the camera.
    AfterRestart withCard = seen;
    withCard.packageThere = true;
    if (judge(withCard, words) == Judgement::AGAIN && waits_for_card(agent)) {
        return {};
    }
    switch (judge(seen, words)) {
        case Judgement::SUCCESS:
            return conclude(agent, true, words);
        case Judgement::FAILURE:
            return conclude(agent, false, words);
        case Judgement::AGAIN:
            break;
    }
    // The camera may not be fit any more. The server learns of it when the request is posted: a
    // server that does not answer must not delay that.
    say(agent, words + "; once more");
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
    if (agent.stop) {
        return stopped();  // it may have ended the fitness command, too
    }
    if (!reason.empty()) {
        wait_for(agent, reason);
        return {};
    }
    if (waits_for_card(agent)) {
        return {};
    }
    Manifest manifest;
    PackageStatus taken;
    // It was suitable when it was fetched: the node of a partition may not exist yet.
    if (!look_patiently(agent, [&] {
            taken = read_manifest(agent, manifest);
            return is_there(taken) && taken.result != PACKAGE_UNSUITABLE;
        })) {
        return stopped();
    }
    if (agent.action.attempts == 0 && lacks_files(agent)) {
        say(agent, "the package is not in " + agent.folder + " any more");
        agent.action.stage = ACTION_DOWNLOADING;
        agent.checked.clear();
        return store(agent);
    }
    if (taken.ok()) {
        taken = check_content(agent, manifest);
    }
    if (!taken.ok()) {
        return conclude(agent, false, taken.text);
    }
    bool serves = upgrade_has_begun();
    const auto look = [&serves] {
        return serves = serves || queue_use(getpid()) != QueueUse::NO_QUEUE;
    };
    if (!look_patiently(agent, look)) {
        return stopped();
    }
    if (!serves) {
        return conclude(agent, false, "the upgrade service does not run");
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
    if (wrong.empty()) {
        char slot = '?';
        if (!wait_for_slot(agent, slot)) {
            return stopped();
        }
        wrong = slot == agent.action.slotBefore ? "the slot was switched back" : "";
    }
    if (wrong.empty() && !wait_for_disagreement(agent, manifest, wrong)) {
        return stopped();
    }
    if (wrong.empty()) {
        return {};
    }
    return conclude(agent, false, "the upgrade succeeded, but something else runs now: " + wrong);
}
