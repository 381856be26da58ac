#include "agent/steps.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "agent/stored_file.h"
#include "base/owned.h"
#include "base/unique_fd.h"
#include "cli/error_line.h"
#include "package/content.h"
#include "package/files.h"

namespace {

constexpr uint64_t MS_PER_S = 1000;
constexpr long NS_PER_MS = 1000000;

// What a download of NAME leaves beside it begins with NAME and ".part".
bool belongs_to(const std::string& entry, const std::vector<OfferedFile>& files) {
    return std::ranges::any_of(files, [&](const OfferedFile& file) {
        return entry == file.name || (entry.starts_with(file.name + ".part"));
    });
}

std::string version_of(const ActionRecord& action) {
    Manifest manifest;
    return parse_manifest(action.manifest, manifest).ok() ? manifest.version : "";
}

AgentStatus remember(const Agent& agent, bool told) {
    const ActionRecord& action = agent.action;
    return add_history(agent.settings.stateFolder,
                       {.id = action.id,
                        .manifestDigest = manifest_digest(action),
                        .version = version_of(action),
                        .succeeded = action.succeeded,
                        .told = told,
                        .words = action.words,
                        .manifest = action.succeeded ? action.manifest : "",
                        .slotBefore = action.slotBefore,
                        .time = time(nullptr)});
}

// An agent that kept names only has left a record without digests. It may be the one that has just
// been replaced by this upgrade.
void find_manifest_digest(Agent& agent) {
    const auto file =
        std::ranges::find(agent.action.files, agent.action.manifestFile, &OfferedFile::name);
    std::string text;
    if (file != agent.action.files.end() && file->sha256.empty() &&
        read_small_file(agent.folder + file->name, MANIFEST_SIZE_MAX, FileKind::REGULAR, text)
            .ok()) {
        Sha256Stream digest;
        digest.update(text);
        file->sha256 = digest_text(digest.take());
    }
}

}  // namespace

void say(const Agent& agent, const std::string& text) {
    log_action(agent.action.id, text);
}

void log_action(const std::string& id, const std::string& text) {
    printf("%s\n", printable(id.empty() ? text : "action " + id + ": " + text).c_str());
    fflush(stdout);
}

AgentStatus store(Agent& agent) {
    return store_action(agent.settings.stateFolder, agent.action);
}

AgentStatus tell(Agent& agent, DdiExecution execution, const std::string& detail, uint32_t done,
                 uint32_t of) {
    // The server waits for this one.
    if (agent.action.statuses >= STATUSES_MAX && execution != DdiExecution::DOWNLOADED) {
        return {};
    }
    ++agent.action.statuses;
    return agent.server.send_feedback(agent.server.action_href(agent.action.id),
                                      {.id = agent.action.id,
                                       .execution = execution,
                                       .finished = DdiFinished::NONE,
                                       .done = done,
                                       .of = of,
                                       .details = {detail}});
}

void wait_for(Agent& agent, const std::string& what) {
    if (agent.waitingTold != what) {
        agent.waitingTold = what;
        say(agent, "waits for " + what);
        // A reason that changes all the time must not use up the statuses.
        if (agent.action.statuses < WAITING_STATUSES_MAX) {
            (void)tell(agent, DdiExecution::PROCEEDING, "waits for " + what);
        }
    }
    agent.waitingFor = what;
    agent.waitingId = agent.action.id;
}

void end_wait(Agent& agent) {
    if (!agent.waitingTold.empty()) {
        say(agent, "waits no longer for " + agent.waitingTold);
        agent.waitingTold.clear();
    }
}

AgentStatus conclude(Agent& agent, bool succeeded, const std::string& words) {
    agent.action.stage = ACTION_VERDICT;
    agent.action.succeeded = succeeded;
    agent.action.words = words;
    // A success holds for this start of the camera: who delivers it after another looks again.
    agent.action.bootId = agent.bootId;
    agent.lastFailed = !succeeded;
    find_manifest_digest(agent);
    agent.runningManifest = succeeded ? manifest_digest(agent.action) : "";
    say(agent, (succeeded ? "success: " : "failure: ") + words);
    AgentStatus status = store(agent);
    agent.verdictUnstored = !status.ok();
    agent.verdictSent = false;
    if (status.ok()) {
        remove_needless_files(agent);
    }
    return status;
}

void remove_needless_files(const Agent& agent) {
    OpenFolder folder;
    AgentStatus status = open_folder(agent.place, folder);
    const bool none =
        !status.ok() || agent.action.stage == ACTION_NONE || agent.action.stage == ACTION_VERDICT;
    // What lies under the mount point, where no card is, has got there by mistake.
    if (status.result == AGENT_NO_CARD) {
        status = open_folder({.path = agent.place.path}, folder);
    }
    const corvo::OwnedDirectory directory(status.ok() ? fdopendir(folder.get()) : nullptr);
    if (!directory) {
        return;
    }
    const int descriptor = folder.descriptor.release();  // the directory closes it
    const std::vector<OfferedFile> needed = none ? std::vector<OfferedFile>() : agent.action.files;
    while (const dirent* entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && !belongs_to(name, needed)) {
            unlinkat(descriptor, name.c_str(), 0);
        }
    }
}

bool waits_for_card(Agent& agent) {
    OpenFolder folder;
    const AgentStatus status = open_folder(agent.place, folder);
    if (status.result != AGENT_NO_CARD) {
        return false;
    }
    wait_for(agent, "a card: " + status.text);
    return true;
}

AgentStatus drop(Agent& agent, const std::string& why) {
    say(agent, why);
    AgentStatus status = remove_action(agent.settings.stateFolder);
    if (status.ok()) {
        agent.action = {};
        agent.checked.clear();
        remove_needless_files(agent);
    }
    return status;
}

AgentStatus forget_verdict(Agent& agent, bool taken) {
    // A state folder that takes no changes must not make this process send it again and again.
    const bool first = !agent.verdictSent;
    agent.verdictSent = true;
    agent.verdictTaken = taken;
    // An action that the history lacks has ended all the same.
    AgentStatus status = remember(agent, taken);
    if (!status.ok() && first) {
        print_error(AGENT, status.text + "; the history lacks action " + agent.action.id);
    }
    status = remove_action(agent.settings.stateFolder);
    if (status.ok()) {
        agent.action = {};
        agent.verdictSent = false;
        agent.attributesDue = true;
    }
    return status;
}

AgentStatus deliver_verdict(Agent& agent, bool offered) {
    // What is said must be on the medium, or a power cut could make it another one.
    if (agent.verdictUnstored) {
        AgentStatus status = store(agent);
        if (!status.ok()) {
            return status;
        }
        agent.verdictUnstored = false;
        remove_needless_files(agent);
    }
    if (agent.action.succeeded && agent.action.bootId != agent.bootId) {
        AgentStatus status = look_again(agent);
        if (!status.ok()) {
            return status;
        }
        if (agent.action.succeeded) {
            agent.action.bootId = agent.bootId;
            agent.runningManifest = manifest_digest(agent.action);
        }
    }
    agent.lastFailed = !agent.action.succeeded;
    AgentStatus status = agent.server.send_feedback(
        agent.server.action_href(agent.action.id),
        {.id = agent.action.id,
         .execution = DdiExecution::CLOSED,
         .finished = agent.action.succeeded ? DdiFinished::SUCCESS : DdiFinished::FAILURE,
         .details = {agent.action.words}});
    if (status.ok()) {
        return forget_verdict(agent, true);
    }
    if (status.result == AGENT_UNREACHABLE || status.result == AGENT_STOPPED) {
        return status;
    }
    if (status.result == AGENT_GONE && !offered) {
        say(agent, "the server has ended it already");
        return forget_verdict(agent, false);
    }
    // Something between may have answered, or the server does not take it and never will.
    if (++agent.action.refusedResults >= REFUSED_RESULTS_MAX) {
        say(agent, "the result is not delivered, the server does not take it: " + status.text);
        return forget_verdict(agent, false);
    }
    AgentStatus stored = store(agent);
    return stored.ok() ? status : stored;
}

uint64_t monotonic_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * MS_PER_S +
           static_cast<uint64_t>(now.tv_nsec / NS_PER_MS);
}

bool pause(const Agent& agent, uint32_t milliseconds) {
    const timespec span = {.tv_sec = static_cast<time_t>(milliseconds / MS_PER_S),
                           .tv_nsec = static_cast<long>(milliseconds % MS_PER_S) * NS_PER_MS};
    // A signal cuts it short, which is what it is for.
    nanosleep(&span, nullptr);
    return !agent.stop;
}
