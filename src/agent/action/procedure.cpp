#include "agent/procedure.h"

#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <utility>

#include "agent/camera_state.h"
#include "agent/consent.h"
#include "agent/steps.h"
#include "agent/stored_file.h"
#include "cli/error_line.h"
#include "package/camera_rules.h"
#include "package/modules.h"
#include "package/outcome.h"

namespace {

// An answer of the server's often makes the next question due at once: a cancellation confirmed, a
// verdict delivered, a package complete. So many questions at the most, then it is left alone.
constexpr int ROUNDS_MAX = 12;

// An offer that cannot be read may be a proxy's bad moment; one that stays so is refused.
constexpr uint32_t MALFORMED_OFFERS_MAX = 3;

bool is_committed(const ActionRecord& action) {
    return action.stage == ACTION_COMMITTED || action.stage == ACTION_POSTED;
}

// An upgrade that was cut short waits for its next request, but partitions may be half written:
// like one that is committed it is seen through.
bool has_begun(const ActionRecord& action) {
    return is_committed(action) || (action.stage == ACTION_WAITING && action.attempts > 0);
}

// "11" of ".../deploymentBase/11?c=-2127183556".
std::string id_of(const std::string& href) {
    const std::string path = href.substr(0, href.find('?'));
    return path.substr(path.rfind('/') + 1);
}

bool is_answered(const Agent& agent, const std::string& what) {
    return std::ranges::find(agent.answered, what) != agent.answered.end();
}

// Whether this was not answered yet in this poll. A server on which the answer has no effect would
// get it over and over.
bool is_first_answer(Agent& agent, const std::string& what) {
    if (is_answered(agent, what)) {
        return false;
    }
    agent.answered.push_back(what);
    return true;
}

// The action that a link of the poll leads to. AGENT_MALFORMED also when it is another one: its
// feedback would go to a place that does not exist, and never end.
AgentStatus get_offer(Agent& agent, const std::string& href, DdiAction& offer) {
    AgentStatus status = agent.server.get_action(href, offer);
    if (status.ok() && offer.id != id_of(href)) {
        status = agent_fault(AGENT_MALFORMED, "the action of the server: the id \"" + offer.id +
                                                  "\" differs from its link's");
    }
    return status;
}

bool has_known_digests(const ActionRecord& action) {
    return std::ranges::none_of(action.files,
                                [](const OfferedFile& file) { return file.sha256.empty(); });
}

// Whether the offer is still the one that was taken: the same files, in any order.
bool is_same_offer(const ActionRecord& action, const DdiAction& offer) {
    const auto was_offered = [&action](const DdiFile& file) {
        const auto found = std::ranges::find(action.files, file.name, &OfferedFile::name);
        return found != action.files.end() && found->size == file.size &&
               found->sha256 == digest_text(file.sha256);
    };
    return action.id == offer.id && action.files.size() == offer.files.size() &&
           std::ranges::all_of(offer.files, was_offered);
}

// Of what a person agrees to: names, sizes and digests of the files, in the server's order.
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
    agent.attributesDue = agent.attributesDue && !status.ok();
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
    const bool decided = agent.action.stage == ACTION_VERDICT;
    if (ours && (decided || has_begun(agent.action))) {
        if (agent.action.refusedCancellation == cancellation.id) {
            again = decided;  // the result is still to be sent
            return {};
        }
        const std::string why = decided ? "the result is known" : "the upgrade has begun";
        say(agent, "cancelled too late: " + why);
        status = agent.server.send_feedback(href, {.id = cancellation.id,
                                                   .execution = DdiExecution::REJECTED,
                                                   .details = {why + ", it is not cancelled"}});
        // Whatever the answer, a second one would not be taken.
        if (status.result != AGENT_UNREACHABLE && status.result != AGENT_STOPPED) {
            agent.action.refusedCancellation = cancellation.id;
            again = true;
            return store(agent);
        }
        return status;
    }
    // The camera lets go first: cut in between, it finds a cancellation of what it does not have.
    if (ours) {
        status = drop(agent, "cancelled");
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

// What was answered on the camera. AGENT_GONE: nobody has answered yet.
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
    print_error(AGENT, status.text + "; it is put aside");
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
        agent.waitingFor = WAITS_FOR_CONSENT;
        agent.waitingId = offer.id;
        agent.waitingOffer = digest;
        if (agent.consentLogged != offer.id + digest) {
            agent.consentLogged = offer.id + digest;
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

// The server has lost the result, or was asked before it had stored it: it gets the same again. An
// action that has its result is never carried out a second time.
AgentStatus answer_again(Agent& agent, const DdiAction& offer, const HistoryEntry& entry) {
    agent.action = {};
    take_files(agent.action, offer);
    agent.action.stage = ACTION_VERDICT;
    agent.action.manifest = entry.manifest;
    agent.action.slotBefore = entry.slotBefore;
    agent.action.succeeded = entry.succeeded;
    agent.action.words = entry.words;
    // Of no start of the camera: whether the system still runs is checked before it is sent.
    agent.action.bootId =
        agent.runningManifest == entry.manifestDigest ? agent.bootId : std::string();
    agent.checked.clear();
    say(agent, "offered again, but it has its result");
    AgentStatus status = store(agent);
    if (status.ok()) {
        remove_needless_files(agent);
    }
    return status;
}

AgentStatus take_offer(Agent& agent, const DdiAction& offer) {
    const DdiFile* const manifest = find_manifest(offer);
    HistoryEntry entry;
    if (manifest != nullptr && find_in_history(agent.settings.stateFolder, offer.id,
                                               digest_text(manifest->sha256), entry)) {
        return answer_again(agent, offer, entry);
    }
    // The server goes on counting when it changes what it offers.
    const uint32_t statuses = agent.action.id == offer.id ? agent.action.statuses : 0;
    agent.action = {};
    take_files(agent.action, offer);
    agent.action.stage = ACTION_DOWNLOADING;
    agent.action.statuses = statuses;
    agent.checked.clear();
    agent.goneOffers = 0;
    agent.waitingTold.clear();
    say(agent, "offered, " + std::to_string(offer.files.size()) + " files");
    AgentStatus status = store(agent);
    if (status.ok()) {
        remove_needless_files(agent);
    }
    return status;
}

// What the server offers cannot be read: there is nothing to go by but its address.
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
    return conclude(agent, false, why.text);
}

AgentStatus carry_out(Agent& agent, const std::string& href, bool& again) {
    if (has_begun(agent.action)) {
        return {};  // seen through first, whatever is offered
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
        status = drop(agent, "another one is offered instead");
    }
    if (status.ok() && !is_same_offer(agent.action, offer)) {
        if (agent.action.id == offer.id) {
            say(agent, "the server offers other files now");
        }
        status = take_offer(agent, offer);
    }
    if (!status.ok() || agent.action.stage == ACTION_VERDICT) {
        again = status.ok();
        return status;
    }
    if (agent.action.stage == ACTION_DOWNLOADING) {
        status = fetch_package(agent, offer);
        // What happens next is for the server to say: it may have changed its mind meanwhile.
        again = (status.ok() && agent.action.stage != ACTION_DOWNLOADING) ||
                status.result == AGENT_GONE;
        return status.result == AGENT_GONE ? AgentStatus{} : status;
    }
    status = start_upgrade(agent, offer);
    again = status.ok() &&
            (agent.action.stage == ACTION_VERDICT || agent.action.stage == ACTION_DOWNLOADING);
    return status;
}

// A result is there, and the server was asked what it offers: only a result of that very offer may
// reach it.
AgentStatus settle(Agent& agent, const DdiPoll& poll, bool& again) {
    if (agent.verdictSent) {
        AgentStatus status = forget_verdict(agent, agent.verdictTaken);
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
            say(agent, "the server offers other files now, the result is not sent");
            again = true;
            return forget_verdict(agent, false);
        }
    }
    if (!is_first_answer(agent, "result " + agent.action.id)) {
        return {};
    }
    AgentStatus status = deliver_verdict(agent, offered || !poll.cancellation.empty());
    again = status.ok();
    return status;
}

AgentStatus ask(Agent& agent, bool& again) {
    DdiPoll poll;
    AgentStatus status = agent.server.poll(poll);
    if (!status.ok()) {
        return status;
    }
    agent.sleepS = poll.sleepS;
    if (agent.attributesDue || !poll.configData.empty()) {
        // No action waits for that; it is tried again with the next poll.
        (void)send_attributes(agent, poll.configData);
    }
    if (agent.action.stage == ACTION_VERDICT) {
        return settle(agent, poll, again);
    }
    if (!poll.cancellation.empty()) {
        return answer_cancellation(agent, poll.cancellation, again);
    }
    if (!poll.confirmation.empty()) {
        return answer_confirmation(agent, poll.confirmation, again);
    }
    if (!poll.deployment.empty()) {
        return carry_out(agent, poll.deployment, again);
    }
    if (agent.action.stage == ACTION_NONE || agent.action.downloadOnly || has_begun(agent.action)) {
        return {};
    }
    return drop(agent, "the server does not offer it any more");
}

// One question and what follows from the answer. `again`: another question is due at once.
AgentStatus round(Agent& agent, bool& again) {
    if (is_committed(agent.action)) {
        AgentStatus status = see_through(agent);
        if (!status.ok()) {
            return status;
        }
    }
    // Partitions may be half written: that they are written whole must not depend on a server that
    // can be reached, nor wait for the time that it wants.
    if (has_begun(agent.action) && !is_committed(agent.action)) {
        const DdiAction begun = {.id = agent.action.id, .update = DdiHandling::FORCED, .files = {}};
        AgentStatus status = start_upgrade(agent, begun);
        if (!status.ok()) {
            return status;
        }
    }
    return ask(agent, again);
}

}  // namespace

Agent::Agent(const AgentSettings& given, Keyring keys, std::atomic<bool>& stopFlag)
    : settings(given),
      place(package_folder(given)),
      folder(place.path),
      keyring(std::move(keys)),
      stop(stopFlag),
      server(given.server, stopFlag),
      files(given.server, stopFlag) {}

AgentStatus agent_start(Agent& agent) {
    agent.bootId = kernel_boot_id();
    if (agent.bootId.empty()) {
        return agent_fault(AGENT_MEDIUM, "the kernel's boot id cannot be read");
    }
    AgentStatus status = make_folder(agent.settings.stateFolder);
    if (!status.ok()) {
        return status;
    }
    status = load_action(agent.settings.stateFolder, agent.action);
    if (status.result == AGENT_MALFORMED) {
        // An agent that never starts again would be worse than one that has forgotten.
        print_error(AGENT, status.text + "; it is put aside");
        status = put_action_aside(agent.settings.stateFolder);
    }
    if (!status.ok()) {
        return status;
    }
    // The card may be missing, which is no reason not to ask the server.
    OpenFolder folder;
    const AgentStatus made = make_folder(agent.place, folder);
    if (!made.ok() && agent.attributesDue) {
        say(agent, made.text);
    }
    remove_needless_files(agent);
    return {};
}

AgentStatus agent_poll(Agent& agent) {
    agent.waitingFor.clear();
    agent.waitingId.clear();
    agent.waitingOffer.clear();
    agent.answered.clear();
    AgentStatus status;
    bool again = true;
    for (int i = 0; i < ROUNDS_MAX && again && status.ok(); ++i) {
        again = false;
        status = round(agent, again);
    }
    return status;
}

AgentStatus agent_report(Agent& agent) {
    return send_attributes(agent, "");
}

namespace {

// Without a version file it is known only what this agent has installed.
std::string running_version(const AgentSettings& settings) {
    std::string version;
    if (settings.versionFile.empty()) {
        std::vector<HistoryEntry> history;
        if (!load_history(settings.stateFolder, history).ok()) {
            return "unknown";
        }
        for (const HistoryEntry& entry : history) {
            version = entry.succeeded ? entry.version : version;
        }
        return version.empty() ? "unknown" : version;
    }
    return read_running_version(settings.versionFile, version).ok() ? version : "unknown";
}

}  // namespace

DdiAttributes camera_attributes(const AgentSettings& settings) {
    DdiAttributes attributes = set_attributes(settings);
    attributes.emplace_back("version", running_version(settings));
    std::string modules;
    for (const OtaPackageEntry& entry : package_entries()) {
        modules += (modules.empty() ? "" : ",") + std::string(entry.partitionName);
    }
    attributes.emplace_back("slot", std::string(1, boot_slot()));
    attributes.emplace_back("outcome", outcome_words(outcome_record()));
    attributes.emplace_back("modules", modules);
    return attributes;
}
