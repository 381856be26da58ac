#include "agent/procedure.h"

#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <utility>

#include "agent/attributes.h"
#include "agent/camera_state.h"
#include "agent/consent.h"
#include "agent/stored_file.h"
#include "cli/error_line.h"
#include "fetch.h"
#include "result.h"
#include "upgrade.h"

namespace {

// After a confirmed cancellation, a delivered result or a complete package the server is polled
// again at once. This limits such polls, in case the server and the agent never agree.
constexpr int POLLS_MAX = 12;

// An unreadable offer may be a temporary fault of a proxy. The action fails after so many in a row.
constexpr uint32_t MALFORMED_OFFERS_MAX = 3;

bool is_committed(const ActionRecord& action) {
    return action.stage == ACTION_COMMITTED || action.stage == ACTION_POSTED;
}

// Whether the upgrade must be completed. This also holds for an interrupted upgrade that waits for
// its next request, because partitions may be half written.
bool has_begun(const ActionRecord& action) {
    return is_committed(action) || (action.stage == ACTION_WAITING && action.attempts > 0);
}

// "11" for ".../deploymentBase/11?c=-2127183556".
std::string id_of(const std::string& href) {
    const std::string path = href.substr(0, href.find('?'));
    return path.substr(path.rfind('/') + 1);
}

bool is_answered(const Agent& agent, const std::string& what) {
    return std::ranges::find(agent.polling.answered, what) != agent.polling.answered.end();
}

// Whether this is answered for the first time in this poll. If an answer has no effect on the
// server, it must not be repeated endlessly.
bool is_first_answer(Agent& agent, const std::string& what) {
    if (is_answered(agent, what)) {
        return false;
    }
    agent.polling.answered.push_back(what);
    return true;
}

// Reads the action to which a link of the poll leads. Also returns AGENT_MALFORMED when the
// action's id is not the link's: feedback would then go to a URL that does not exist.
AgentStatus get_offer(Agent& agent, const std::string& href, DdiAction& offer) {
    AgentStatus status = agent.server.get_action(href, offer);
    if (status.ok() && offer.id != id_of(href)) {
        status = agent_fault(AGENT_MALFORMED, "the action of the server: the id \"" + offer.id +
                                                  "\" differs from the id in its link");
    }
    return status;
}

bool has_known_digests(const ActionRecord& action) {
    return std::ranges::none_of(action.files,
                                [](const OfferedFile& file) { return file.sha256.empty(); });
}

// Whether the offer is the accepted one: the same id and the same files, in any order.
bool is_same_offer(const ActionRecord& action, const DdiAction& offer) {
    const auto was_offered = [&action](const DdiFile& file) {
        const auto found = std::ranges::find(action.files, file.name, &OfferedFile::name);
        return found != action.files.end() && found->size == file.size &&
               found->sha256 == digest_text(file.sha256);
    };
    return action.id == offer.id && action.files.size() == offer.files.size() &&
           std::ranges::all_of(offer.files, was_offered);
}

// Digest over the offer that a person consents to: names, sizes and digests of its files, in the
// server's order.
std::string offer_digest(const DdiAction& offer) {
    Sha256Stream stream;
    for (const DdiFile& file : offer.files) {
        stream.update(file.name + ' ' + std::to_string(file.size) + ' ' + digest_text(file.sha256) +
                      '\n');
    }
    return digest_text(stream.take());
}

void take_files(ActionRecord& action, const DdiAction& offer) {
    action.id = offer.id;
    for (const DdiFile& file : offer.files) {
        action.files.push_back(
            {.name = file.name, .size = file.size, .sha256 = digest_text(file.sha256)});
    }
    const DdiFile* const manifest = find_manifest(offer);
    action.manifestFile = manifest == nullptr ? "" : manifest->name;
}

AgentStatus send_attributes(Agent& agent, const std::string& href) {
    AgentStatus status = agent.server.send_attributes(href, camera_attributes(agent.settings));
    agent.polling.attributesDue = agent.polling.attributesDue && !status.ok();
    return status;
}

AgentStatus answer_cancellation(Agent& agent, const std::string& href, bool& again) {
    if (!is_first_answer(agent, href)) {
        return {};
    }
    DdiCancellation cancellation;
    AgentStatus status = agent.server.get_cancellation(href, cancellation);
    if (!status.ok()) {
        return status.result == AGENT_GONE ? AgentStatus{} : status;
    }
    const bool ours = agent.action.stage != ACTION_NONE && cancellation.stopId == agent.action.id;
    const bool decided = agent.action.stage == ACTION_RESULT;
    if (ours && (decided || has_begun(agent.action))) {
        if (agent.action.refusedCancellation == cancellation.id) {
            again = decided;  // the result still has to be sent
            return {};
        }
        const std::string why = decided ? "the result is known" : "the upgrade has begun";
        log_action(agent, "cancellation refused: " + why);
        status = agent.server.send_feedback(href, {.id = cancellation.id,
                                                   .execution = DdiExecution::REJECTED,
                                                   .details = {why + ", it is not cancelled"}});
        // The refusal is not sent again, whatever the server answered: it would not accept a second
        // one.
        if (status.result != AGENT_UNREACHABLE && status.result != AGENT_STOPPED) {
            agent.action.refusedCancellation = cancellation.id;
            again = true;
            return store(agent);
        }
        return status;
    }
    // The record is removed before the answer is sent. After a power cut between both, the
    // cancellation is answered again, as one of an action that is not pending.
    if (ours) {
        status = drop_action(agent, "cancelled");
    }
    if (status.ok()) {
        status = agent.server.send_feedback(
            href, {.id = cancellation.id,
                   .execution = DdiExecution::CLOSED,
                   .finished = DdiFinished::SUCCESS,
                   .details = {ours ? "cancelled before the upgrade"
                                    : "this action is not pending here"}});
    }
    again = status.ok();
    return status.result == AGENT_GONE ? AgentStatus{} : status;
}

// Reads the answer given on the camera. Returns AGENT_GONE when no answer was given yet.
AgentStatus consent_given(const Agent& agent, const std::string& id, const std::string& digest,
                          bool& confirmed) {
    if (agent.settings.confirm != "ask") {
        confirmed = true;
        return {};
    }
    AgentStatus status = find_consent(agent.settings.stateFolder, id, digest, confirmed);
    if (status.result != AGENT_MALFORMED) {
        return status;
    }
    print_error(AGENT, status.text + "; renamed to *.bad");
    const AgentStatus aside = put_consent_aside(agent.settings.stateFolder);
    status.result = AGENT_GONE;
    return aside.ok() ? status : aside;
}

AgentStatus answer_confirmation(Agent& agent, const std::string& href, bool& again) {
    if (has_begun(agent.action) || !is_first_answer(agent, href)) {
        return {};
    }
    DdiAction offer;
    AgentStatus status = get_offer(agent, href, offer);
    if (!status.ok()) {
        return status.result == AGENT_GONE ? AgentStatus{} : status;
    }
    bool confirmed = false;
    const std::string digest = offer_digest(offer);
    status = consent_given(agent, offer.id, digest, confirmed);
    if (!status.ok()) {
        agent.waiting.reason = WAITS_FOR_CONSENT;
        agent.waiting.id = offer.id;
        agent.waiting.offer = digest;
        if (agent.waiting.consentLogged != offer.id + digest) {
            agent.waiting.consentLogged = offer.id + digest;
            log_action(offer.id, "waits for consent: corvo_agent confirm or deny");
        }
        return status.result == AGENT_GONE ? AgentStatus{} : status;
    }
    status = agent.server.send_confirmation(href, confirmed,
                                            confirmed ? "confirmed" : "denied on the camera");
    if (status.ok() || status.result == AGENT_GONE) {
        again = confirmed;
        return remove_consent(agent.settings.stateFolder);
    }
    return status;
}

// Sends the stored result of an action that the server offers again. The server has lost the
// result, or was polled before it had stored it. The action is never carried out a second time.
AgentStatus resend_result(Agent& agent, const DdiAction& offer, const HistoryEntry& entry) {
    agent.action = {};
    take_files(agent.action, offer);
    agent.action.stage = ACTION_RESULT;
    agent.action.manifest = entry.manifest;
    agent.action.slotBefore = entry.slotBefore;
    agent.action.succeeded = entry.succeeded;
    agent.action.message = entry.message;
    // With an empty boot id, a success is checked again before it is sent.
    agent.action.bootId =
        agent.camera.runningManifest == entry.manifestDigest ? agent.camera.bootId : std::string();
    agent.package.checked.clear();
    log_action(agent, "offered again; its stored result will be sent");
    AgentStatus status = store(agent);
    if (status.ok()) {
        remove_unused_files(agent);
    }
    return status;
}

AgentStatus accept_offer(Agent& agent, const DdiAction& offer) {
    const DdiFile* const manifest = find_manifest(offer);
    HistoryEntry entry;
    if (manifest != nullptr && find_in_history(agent.settings.stateFolder, offer.id,
                                               digest_text(manifest->sha256), entry)) {
        return resend_result(agent, offer, entry);
    }
    // The server continues its count of statuses when it changes the files of an action.
    const uint32_t statuses = agent.action.id == offer.id ? agent.action.statuses : 0;
    agent.action = {};
    take_files(agent.action, offer);
    agent.action.stage = ACTION_DOWNLOADING;
    agent.action.statuses = statuses;
    agent.package.checked.clear();
    agent.package.goneOffers = 0;
    agent.waiting.reported.clear();
    log_action(agent, "offered, " + std::to_string(offer.files.size()) + " files");
    AgentStatus status = store(agent);
    if (status.ok()) {
        remove_unused_files(agent);
    }
    return status;
}

// Handles an offer that cannot be parsed. Only the id in its link is known.
AgentStatus refuse_malformed(Agent& agent, const std::string& href, const AgentStatus& why,
                             bool& again) {
    const std::string id = id_of(href);
    if (id.empty()) {
        return why;
    }
    if (agent.action.id != id) {
        agent.action = {};
        agent.action.id = id;
        agent.action.stage = ACTION_DOWNLOADING;
    }
    if (++agent.action.malformedOffers < MALFORMED_OFFERS_MAX) {
        AgentStatus stored = store(agent);
        return stored.ok() ? why : stored;
    }
    again = true;
    return finish_action(agent, false, why.text);
}

AgentStatus handle_offer(Agent& agent, const std::string& href, bool& again) {
    if (has_begun(agent.action)) {
        return {};  // the started upgrade is completed first, whatever is offered
    }
    DdiAction offer;
    AgentStatus status = get_offer(agent, href, offer);
    if (status.result == AGENT_GONE) {
        return {};
    }
    if (status.result == AGENT_MALFORMED && agent.action.files.empty()) {
        return refuse_malformed(agent, href, status, again);
    }
    if (!status.ok()) {
        return status;
    }
    if (agent.action.stage != ACTION_NONE && agent.action.id != offer.id &&
        !agent.action.downloadOnly) {
        status = drop_action(agent, "the server offers another action instead");
    }
    if (status.ok() && !is_same_offer(agent.action, offer)) {
        if (agent.action.id == offer.id) {
            log_action(agent, "the server now offers other files");
        }
        status = accept_offer(agent, offer);
    }
    if (!status.ok() || agent.action.stage == ACTION_RESULT) {
        again = status.ok();
        return status;
    }
    if (agent.action.stage == ACTION_DOWNLOADING) {
        status = fetch_package(agent, offer);
        // The server is polled again before the next step. It may have canceled the action
        // meanwhile.
        again = (status.ok() && agent.action.stage != ACTION_DOWNLOADING) ||
                status.result == AGENT_GONE;
        return status.result == AGENT_GONE ? AgentStatus{} : status;
    }
    status = start_upgrade(agent, offer);
    again = status.ok() &&
            (agent.action.stage == ACTION_RESULT || agent.action.stage == ACTION_DOWNLOADING);
    return status;
}

// Handles a poll while a result is pending. The result is sent only if the server still offers the
// same files under the action's id, or no longer offers the action.
AgentStatus handle_result(Agent& agent, const DdiPoll& poll, bool& again) {
    if (agent.delivery.isSent) {
        AgentStatus status = archive_result(agent, agent.delivery.isAccepted);
        again = status.ok();
        return status;
    }
    if (!poll.cancellation.empty() && !is_answered(agent, poll.cancellation)) {
        return answer_cancellation(agent, poll.cancellation, again);
    }
    const bool offered = id_of(poll.deployment) == agent.action.id;
    if (offered) {
        DdiAction offer;
        AgentStatus status = get_offer(agent, poll.deployment, offer);
        if (status.result == AGENT_GONE) {
            return {};
        }
        const bool unread = status.result == AGENT_MALFORMED && !agent.action.succeeded;
        if (!status.ok() && !unread) {
            return status;
        }
        if (status.ok() && has_known_digests(agent.action) && !is_same_offer(agent.action, offer)) {
            log_action(agent, "the server now offers other files, the result is not sent");
            again = true;
            return archive_result(agent, false);
        }
    }
    if (!is_first_answer(agent, "result " + agent.action.id)) {
        return {};
    }
    AgentStatus status = deliver_result(agent, offered || !poll.cancellation.empty());
    again = status.ok();
    return status;
}

AgentStatus poll_server(Agent& agent, bool& again) {
    DdiPoll poll;
    AgentStatus status = agent.server.poll(poll);
    if (!status.ok()) {
        return status;
    }
    agent.polling.sleepS = poll.sleepS;
    if (agent.polling.attributesDue || !poll.configData.empty()) {
        // A failure is ignored, because no action depends on the attributes. The next poll sends
        // them again.
        (void)send_attributes(agent, poll.configData);
    }
    if (agent.action.stage == ACTION_RESULT) {
        return handle_result(agent, poll, again);
    }
    if (!poll.cancellation.empty()) {
        return answer_cancellation(agent, poll.cancellation, again);
    }
    if (!poll.confirmation.empty()) {
        return answer_confirmation(agent, poll.confirmation, again);
    }
    if (!poll.deployment.empty()) {
        return handle_offer(agent, poll.deployment, again);
    }
    if (agent.action.stage == ACTION_NONE || agent.action.downloadOnly || has_begun(agent.action)) {
        return {};
    }
    return drop_action(agent, "the server no longer offers the action");
}

// Continues a started upgrade, then polls once and handles the answer. Sets `again` when the server
// has to be polled again at once.
AgentStatus poll_once(Agent& agent, bool& again) {
    if (is_committed(agent.action)) {
        AgentStatus status = follow_upgrade(agent);
        if (!status.ok()) {
            return status;
        }
    }
    // Partitions may be half written. Completing them must depend neither on a reachable server nor
    // on its maintenance window.
    if (has_begun(agent.action) && !is_committed(agent.action)) {
        const DdiAction begun = {.id = agent.action.id, .update = DdiHandling::FORCED, .files = {}};
        AgentStatus status = start_upgrade(agent, begun);
        if (!status.ok()) {
            return status;
        }
    }
    return poll_server(agent, again);
}

}  // namespace

AgentStatus agent_start(Agent& agent) {
    agent.camera.bootId = kernel_boot_id();
    if (agent.camera.bootId.empty()) {
        return agent_fault(AGENT_STORAGE, "the kernel's boot id cannot be read");
    }
    AgentStatus status = make_folder(agent.settings.stateFolder);
    if (!status.ok()) {
        return status;
    }
    status = load_action(agent.settings.stateFolder, agent.action);
    if (status.result == AGENT_MALFORMED) {
        // Losing the record is better than an agent that never starts again.
        print_error(AGENT, status.text + "; renamed to *.bad");
        status = put_action_aside(agent.settings.stateFolder);
    }
    if (!status.ok()) {
        return status;
    }
    // A failure is only logged: without a card the server is polled all the same.
    OpenFolder folder;
    const AgentStatus made = make_folder(agent.package.folder, folder);
    if (!made.ok() && agent.polling.attributesDue) {
        log_action(agent, made.text);
    }
    remove_unused_files(agent);
    return {};
}

AgentStatus agent_poll(Agent& agent) {
    agent.waiting.reason.clear();
    agent.waiting.id.clear();
    agent.waiting.offer.clear();
    agent.polling.answered.clear();
    AgentStatus status;
    bool again = true;
    for (int i = 0; i < POLLS_MAX && again && status.ok(); ++i) {
        again = false;
        status = poll_once(agent, again);
    }
    return status;
}

AgentStatus agent_report(Agent& agent) {
    return send_attributes(agent, "");
}
