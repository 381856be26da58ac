#include "restart.h"

#include <compare>
#include <string>

#include "agent/camera_state.h"
#include "agent/judge.h"
#include "fetch.h"
#include "package/camera_rules.h"
#include "package/manifest.h"
#include "package/version.h"
#include "patience.h"
#include "result.h"
#include "trial.h"

namespace {

// Compares the running version and the partitions with the manifest, as far as the settings ask for
// it. Returns PACKAGE_OK when they agree.
PackageStatus find_mismatch(const Agent& agent, const Manifest& manifest) {
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

// Calls find_mismatch() until its result is final. `wrong` becomes the mismatch, or empty. Returns
// as wait_until() does.
bool wait_for_mismatch(const Agent& agent, const Manifest& manifest, std::string& wrong) {
    return wait_until(agent, [&] {
        const PackageStatus found = find_mismatch(agent, manifest);
        wrong = found.text;
        return is_final(found);
    });
}

}  // namespace

AgentStatus judge_restart(Agent& agent) {
    Manifest manifest;
    const PackageStatus parsed = parse_manifest(agent.action.manifest, manifest);
    if (!parsed.ok()) {
        return finish_action(agent, false, parsed.text);
    }
    if (agent.waiting.reported != WAITS_FOR_COMMIT) {
        log_action(agent, "the camera has restarted, checking the running system");
    }
    StateAfterRestart state = {.record = outcome_record(),
                               .recordBefore = agent.action.recordBefore,
                               .slot = '?',
                               .slotBefore = agent.action.slotBefore,
                               .packageComplete = false,
                               .partitionsRead = false,
                               .mismatch = "",
                               .attempts = agent.action.attempts};
    if (!wait_for_slot(agent, state.slot)) {
        return agent_stopped();
    }
    const Trial trial = read_trial(state.slot);
    if (trial.isUndecided) {
        wait_for(agent, WAITS_FOR_COMMIT);
        return {};
    }
    if (agent.waiting.reported == WAITS_FOR_COMMIT) {
        end_wait(agent);
    }
    // An old reason, of a trial before this upgrade, explains nothing.
    if (state.slot == state.slotBefore && !trial.reason.empty() &&
        trial.mark != agent.action.trialBefore) {
        return finish_action(agent, false,
                             std::string("slot ") + trial.tried + " was given up: " + trial.reason);
    }
    if (slot_was_switched(state.slot, state.slotBefore)) {
        state.partitionsRead = agent.settings.checkPartitions;
        if (!wait_for_mismatch(agent, manifest, state.mismatch)) {
            return agent_stopped();
        }
    } else {
        if (!wait_for_card(agent)) {
            return agent_stopped();
        }
        state.packageComplete = check_content(agent, manifest).ok();
    }
    std::string message;
    // A package on a card that is not mounted is not a failure. If a complete package would lead to
    // another request, the agent waits for the card.
    StateAfterRestart withCard = state;
    withCard.packageComplete = true;
    if (judge(withCard, message) == Judgement::AGAIN && waits_for_card(agent)) {
        return {};
    }
    switch (judge(state, message)) {
        case Judgement::SUCCESS:
            return finish_action(agent, true, message);
        case Judgement::FAILURE:
            return finish_action(agent, false, message);
        case Judgement::AGAIN:
            break;
    }
    // start_upgrade() checks again whether the upgrade may start. The server gets no status here,
    // because a server that does not answer must not delay the request.
    log_action(agent, message + "; the request is repeated");
    agent.action.stage = ACTION_WAITING;
    return store(agent);
}

bool needs_recheck(const Agent& agent) {
    return agent.action.succeeded && agent.action.bootId != agent.camera.bootId;
}

AgentStatus recheck_success(Agent& agent) {
    if (!needs_recheck(agent)) {
        return {};
    }
    Manifest manifest;
    std::string wrong = parse_manifest(agent.action.manifest, manifest).text;
    if (wrong.empty()) {
        char slot = '?';
        if (!wait_for_slot(agent, slot)) {
            return agent_stopped();
        }
        if (read_trial(slot).isUndecided) {
            wait_for(agent, WAITS_FOR_COMMIT);
            return {};
        }
        wrong = slot == agent.action.slotBefore ? "the slot was switched back" : "";
    }
    if (wrong.empty() && !wait_for_mismatch(agent, manifest, wrong)) {
        return agent_stopped();
    }
    if (wrong.empty()) {
        agent.action.bootId = agent.camera.bootId;
        agent.camera.runningManifest = manifest_digest(agent.action);
        return {};
    }
    return finish_action(agent, false,
                         "the upgrade succeeded, but another system runs now: " + wrong);
}
