#include "result.h"

#include <time.h>

#include <algorithm>

#include "cli/error_line.h"
#include "package/content.h"
#include "package/files.h"
#include "package/manifest.h"

namespace {

std::string version_of(const ActionRecord& action) {
    Manifest manifest;
    return parse_manifest(action.manifest, manifest).ok() ? manifest.version : "";
}

AgentStatus add_to_history(const Agent& agent, bool reported) {
    const ActionRecord& action = agent.action;
    return add_history(agent.settings.stateFolder,
                       {.id = action.id,
                        .manifestDigest = manifest_digest(action),
                        .version = version_of(action),
                        .succeeded = action.succeeded,
                        .reported = reported,
                        .message = action.message,
                        .manifest = action.succeeded ? action.manifest : "",
                        .slotBefore = action.slotBefore,
                        .module = action.module,
                        .installed = "",
                        .time = time(nullptr)});
}

// Computes the manifest's digest if the record lacks it. An older agent, possibly the one that this
// upgrade has just replaced, wrote records without digests.
void find_manifest_digest(Agent& agent) {
    const auto file =
        std::ranges::find(agent.action.files, agent.action.manifestFile, &OfferedFile::name);
    std::string text;
    if (file != agent.action.files.end() && file->sha256.empty() &&
        read_small_file(agent.package.folder.path + file->name, MANIFEST_SIZE_MAX,
                        FileKind::REGULAR, text)
            .ok()) {
        Sha256Stream digest;
        digest.update(text);
        file->sha256 = digest_text(digest.take());
    }
}

}  // namespace

AgentStatus finish_action(Agent& agent, bool succeeded, const std::string& message) {
    agent.action.stage = ACTION_RESULT;
    agent.action.succeeded = succeeded;
    agent.action.message = message;
    // A success is valid until the camera restarts; recheck_success() then checks it again.
    agent.action.bootId = agent.camera.bootId;
    agent.delivery.lastFailed = !succeeded;
    find_manifest_digest(agent);
    agent.camera.runningManifest = succeeded ? manifest_digest(agent.action) : "";
    log_action(agent, (succeeded ? "success: " : "failure: ") + message);
    AgentStatus status = store(agent);
    agent.delivery.isUnstored = !status.ok();
    agent.delivery.isSent = false;
    if (status.ok()) {
        remove_unused_files(agent);
    }
    return status;
}

AgentStatus drop_action(Agent& agent, const std::string& why) {
    log_action(agent, why);
    AgentStatus status = remove_action(agent.settings.stateFolder);
    if (status.ok()) {
        agent.action = {};
        agent.package.checked.clear();
        remove_unused_files(agent);
    }
    return status;
}

AgentStatus archive_result(Agent& agent, bool accepted) {
    // Set before anything can fail: if the state folder cannot be written, this process must not
    // send the result again with each poll.
    const bool first = !agent.delivery.isSent;
    agent.delivery.isSent = true;
    agent.delivery.isAccepted = accepted;
    // The action has ended even if the history cannot be written.
    AgentStatus status = add_to_history(agent, accepted);
    if (!status.ok() && first) {
        print_error(AGENT, status.text + "; action " + agent.action.id + " is not in the history");
    }
    status = remove_action(agent.settings.stateFolder);
    if (status.ok()) {
        agent.action = {};
        agent.delivery.isSent = false;
        agent.polling.attributesDue = true;
    }
    return status;
}

AgentStatus deliver_result(Agent& agent, bool offered) {
    // The result must be stored before it is sent. Otherwise a power cut could lead to a second,
    // different result.
    if (agent.delivery.isUnstored) {
        AgentStatus status = store(agent);
        if (!status.ok()) {
            return status;
        }
        agent.delivery.isUnstored = false;
        remove_unused_files(agent);
    }
    agent.delivery.lastFailed = !agent.action.succeeded;
    AgentStatus status = agent.server.send_feedback(
        agent.server.action_href(agent.action.id),
        {.id = agent.action.id,
         .execution = DdiExecution::CLOSED,
         .finished = agent.action.succeeded ? DdiFinished::SUCCESS : DdiFinished::FAILURE,
         .details = {agent.action.message}});
    if (status.ok()) {
        return archive_result(agent, true);
    }
    if (status.result == AGENT_UNREACHABLE || status.result == AGENT_STOPPED) {
        return status;
    }
    if (status.result == AGENT_GONE && !offered) {
        log_action(agent, "the server has closed the action already");
        return archive_result(agent, false);
    }
    // The refusal may come from a proxy and be temporary, or the server may never accept the
    // result. Therefore the number of attempts is limited.
    if (++agent.action.refusedResults >= REFUSED_RESULTS_MAX) {
        log_action(agent, "the result is not delivered, the server refuses it: " + status.text);
        return archive_result(agent, false);
    }
    AgentStatus stored = store(agent);
    return stored.ok() ? status : stored;
}
