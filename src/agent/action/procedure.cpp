#include "agent/procedure.h"

#include <algorithm>
#include <utility>

#include "agent/attributes.h"
#include "agent/camera_state.h"
#include "agent/stored_file.h"
#include "cli/error_line.h"
#include "fetch.h"
#include "installed.h"
#include "offer.h"
#include "restart.h"
#include "result.h"
#include "trial.h"
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
    take_files(offer, agent.action);
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
    const bool hasOtherFiles = agent.action.id == offer.id;
    if (hasOtherFiles) {
        log_action(agent, "the server now offers other files");
    }
    const DdiFile* const manifest = find_manifest(offer);
    HistoryEntry entry;
    if (manifest != nullptr && find_in_history(agent.settings.stateFolder, offer.id,
                                               digest_text(manifest->sha256), entry)) {
        return resend_result(agent, offer, entry);
    }
    // The server continues its count of statuses when it changes the files of an action.
    const uint32_t statuses = hasOtherFiles ? agent.action.statuses : 0;
    agent.action = {};
    take_files(offer, agent.action);
    agent.action.stage = ACTION_DOWNLOADING;
    agent.action.statuses = statuses;
    agent.package.checked.clear();
    agent.package.goneOffers = 0;
    agent.polling.bytesFetched = 0;
    agent.polling.bytesToFetch = 0;
    agent.waiting.reported.clear();
    log_action(agent, "offered, " + std::to_string(offer.files.size()) + " files");
    AgentStatus status = store(agent);
    if (status.ok()) {
        remove_unused_files(agent);
    }
    return status;
}

// Handles an offer that cannot be parsed. Only the id in its link is known.
AgentStatus refuse_unreadable(Agent& agent, const std::string& id, const AgentStatus& why,
                              bool& again) {
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

// Reads the action to which the poll leads, unless nothing depends on it. `fault` becomes the error
// of an action that cannot be parsed.
AgentStatus read_offer(Agent& agent, const std::string& href, DdiAction& offer, Offer& found,
                       AgentStatus& fault) {
    const bool hasResult = agent.action.stage == ACTION_RESULT;
    if (href.empty() || has_begun(agent.action) || (hasResult && id_of(href) != agent.action.id)) {
        found = href.empty() ? OFFER_NOTHING : OFFER_OTHER_ACTION;
        return {};
    }
    AgentStatus status = get_offer(agent, href, offer);
    // An action that has succeeded, or whose files are known, must not fail because of an
    // unreadable answer: that is only a failed request.
    const bool isKnown = hasResult ? agent.action.succeeded : !agent.action.files.empty();
    if (status.result == AGENT_GONE || (status.result == AGENT_MALFORMED && !isKnown)) {
        found = status.result == AGENT_GONE ? OFFER_GONE : OFFER_UNREADABLE;
        fault = std::move(status);
        return {};
    }
    if (status.ok()) {
        found = compare_offer(agent.action, offer);
    }
    return status;
}

// Downloads the package, then reads the offer again, which may have changed meanwhile. This needs
// no poll: an action that is canceled, or replaced by a newer one, cannot be read any more.
AgentStatus download(Agent& agent, const std::string& href, DdiAction& offer, Offer& found,
                     bool& again) {
    AgentStatus status = fetch_package(agent, offer);
    again = (status.ok() && agent.action.stage == ACTION_RESULT) || status.result == AGENT_GONE;
    if (status.ok() && agent.action.stage == ACTION_WAITING) {
        AgentStatus fault;
        status = read_offer(agent, href, offer, found, fault);
        again = status.ok() && found != OFFER_SAME;
    }
    return status.result == AGENT_GONE ? AgentStatus{} : status;
}

AgentStatus start(Agent& agent, const DdiAction& offer, bool& again) {
    AgentStatus status = start_upgrade(agent, offer);
    again = status.ok() &&
            (agent.action.stage == ACTION_RESULT || agent.action.stage == ACTION_DOWNLOADING);
    return status;
}

AgentStatus close_action(Agent& agent, bool offered, bool& again) {
    if (!is_first_answer(agent, "result " + agent.action.id)) {
        return {};
    }
    AgentStatus status = recheck_success(agent);
    if (!status.ok() || needs_recheck(agent)) {
        return status;
    }
    status = deliver_result(agent, offered);
    again = status.ok();
    return status;
}

// Does what follows from the poll for the current action. Dropping and accepting an action change
// what follows, so the table is asked again after them.
AgentStatus carry_out(Agent& agent, const DdiPoll& poll, bool& again) {
    DdiAction offer;
    Offer found = OFFER_NOTHING;
    AgentStatus fault;
    AgentStatus status = read_offer(agent, poll.deployment, offer, found, fault);
    while (status.ok()) {
        switch (next_step(agent.action, found)) {
            case Step::POLL:
                return {};
            case Step::DROP:
                status = drop_action(agent, found == OFFER_NOTHING
                                                ? "the server no longer offers the action"
                                                : "the server offers another action instead");
                break;
            case Step::ACCEPT:
                status = accept_offer(agent, offer);
                found = OFFER_SAME;
                if (status.ok() && agent.action.stage == ACTION_RESULT) {
                    again = true;
                    return {};
                }
                break;
            case Step::REFUSE:
                return refuse_unreadable(agent, id_of(poll.deployment), fault, again);
            case Step::DOWNLOAD:
                status = download(agent, poll.deployment, offer, found, again);
                if (again || agent.action.stage != ACTION_WAITING) {
                    return status;
                }
                break;
            case Step::COMMIT:
                return start(agent, offer, again);
            case Step::CLOSE:
                return close_action(
                    agent, id_of(poll.deployment) == agent.action.id || !poll.cancellation.empty(),
                    again);
            case Step::REMEMBER:
                log_action(agent, "the server now offers other files, the result is not sent");
                again = true;
                return archive_result(agent, false);
        }
    }
    return status;
}

AgentStatus handle_poll(Agent& agent, const DdiPoll& poll, bool& again) {
    const bool hasResult = agent.action.stage == ACTION_RESULT;
    if (hasResult && agent.delivery.isSent) {
        AgentStatus status = archive_result(agent, agent.delivery.isAccepted);
        again = status.ok();
        return status;
    }
    // The answer to a cancellation does not hold up a result, if it was given in this poll already.
    if (!poll.cancellation.empty() && !(hasResult && is_answered(agent, poll.cancellation))) {
        return answer_cancellation(agent, poll.cancellation, again);
    }
    if (!poll.confirmation.empty() && !hasResult) {
        return answer_confirmation(agent, poll.confirmation, again);
    }
    return carry_out(agent, poll, again);
}

AgentStatus poll_server(Agent& agent, bool& again) {
    DdiPoll poll;
    AgentStatus status = agent.server.poll(poll);
    if (!status.ok()) {
        return status;
    }
    agent.polling.sleepS = poll.sleepS;
    const bool areDue = agent.polling.attributesDue || !poll.configData.empty();
    // After a delivered result the server wants the attributes in any case, so a pending result
    // goes first, and they are sent only once.
    const bool resultFirst = agent.action.stage == ACTION_RESULT;
    // A failure is ignored, because no action depends on the attributes. The next poll sends them
    // again.
    if (areDue && !resultFirst) {
        (void)send_attributes(agent, poll.configData);
    }
    report_installed(agent, poll);
    status = handle_poll(agent, poll, again);
    if (areDue && resultFirst && !again) {
        (void)send_attributes(agent, poll.configData);
    }
    return status;
}

// When a trial has ended, the attributes are sent again, and a fallback is found. The slot is not
// read with each poll, because a trial begins with a start of the camera.
void note_trial(Agent& agent) {
    if (!agent.polling.attributesDue && !agent.camera.isOnTrial) {
        return;
    }
    const Trial trial = read_trial();
    agent.polling.attributesDue = agent.polling.attributesDue || !trial.isUndecided;
    agent.camera.isOnTrial = trial.isUndecided;
    agent.polling.installed = find_unreported_system(agent.settings, trial);
}

// Continues a started upgrade.
AgentStatus continue_upgrade(Agent& agent) {
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
        return start_upgrade(agent, begun);
    }
    return {};
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

bool agent_is_idle(const Agent& agent) {
    const bool pending = agent.action.stage != ACTION_NONE && !agent.action.downloadOnly;
    return !pending && agent.waiting.reason.empty() && !agent.camera.isOnTrial &&
           agent.polling.installed.name.empty();
}

AgentStatus agent_continue(Agent& agent) {
    note_trial(agent);
    return continue_upgrade(agent);
}

AgentStatus agent_poll(Agent& agent) {
    agent.waiting.reason.clear();
    agent.waiting.id.clear();
    agent.waiting.offer.clear();
    agent.polling.answered.clear();
    note_trial(agent);
    AgentStatus status;
    bool again = true;
    for (int i = 0; i < POLLS_MAX && again && status.ok(); ++i) {
        again = false;
        status = continue_upgrade(agent);
        if (status.ok()) {
            status = poll_server(agent, again);
        }
    }
    return status;
}

AgentStatus agent_report(Agent& agent) {
    return send_attributes(agent, "");
}
