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

// Whether the entry is one of the files or a temporary file of its download ("NAME.part...").
bool belongs_to(const std::string& entry, const std::vector<OfferedFile>& files) {
    return std::ranges::any_of(files, [&](const OfferedFile& file) {
        return entry == file.name || (entry.starts_with(file.name + ".part"));
    });
}

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
                        .time = time(nullptr)});
}

// Computes the manifest's digest if the record lacks it. An older agent, possibly the one that this
// upgrade has just replaced, wrote records without digests.
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

void log_action(const Agent& agent, const std::string& text) {
    log_action(agent.action.id, text);
}

void log_action(const std::string& id, const std::string& text) {
    printf("%s\n", printable(id.empty() ? text : "action " + id + ": " + text).c_str());
    fflush(stdout);
}

AgentStatus store(Agent& agent) {
    return store_action(agent.settings.stateFolder, agent.action);
}

AgentStatus send_status(Agent& agent, DdiExecution execution, const std::string& detail,
                        uint32_t done, uint32_t of) {
    // "downloaded" is sent in any case, because the server waits for it.
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
    if (agent.waitingReported != what) {
        agent.waitingReported = what;
        log_action(agent, "waits for " + what);
        // The number is limited, because a reason that often changes would use up all statuses.
        if (agent.action.statuses < WAITING_STATUSES_MAX) {
            (void)send_status(agent, DdiExecution::PROCEEDING, "waits for " + what);
        }
    }
    agent.waitingFor = what;
    agent.waitingId = agent.action.id;
}

void end_wait(Agent& agent) {
    if (!agent.waitingReported.empty()) {
        log_action(agent, "no longer waiting for " + agent.waitingReported);
        agent.waitingReported.clear();
    }
}

AgentStatus finish_action(Agent& agent, bool succeeded, const std::string& message) {
    agent.action.stage = ACTION_RESULT;
    agent.action.succeeded = succeeded;
    agent.action.message = message;
    // A success is valid until the camera restarts; deliver_result() then checks it again.
    agent.action.bootId = agent.bootId;
    agent.lastFailed = !succeeded;
    find_manifest_digest(agent);
    agent.runningManifest = succeeded ? manifest_digest(agent.action) : "";
    log_action(agent, (succeeded ? "success: " : "failure: ") + message);
    AgentStatus status = store(agent);
    agent.resultUnstored = !status.ok();
    agent.resultSent = false;
    if (status.ok()) {
        remove_unused_files(agent);
    }
    return status;
}

void remove_unused_files(const Agent& agent) {
    OpenFolder folder;
    AgentStatus status = open_folder(agent.place, folder);
    const bool none =
        !status.ok() || agent.action.stage == ACTION_NONE || agent.action.stage == ACTION_RESULT;
    // Without a card, files below the mount point were stored there by mistake. They are removed.
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

AgentStatus drop_action(Agent& agent, const std::string& why) {
    log_action(agent, why);
    AgentStatus status = remove_action(agent.settings.stateFolder);
    if (status.ok()) {
        agent.action = {};
        agent.checked.clear();
        remove_unused_files(agent);
    }
    return status;
}

AgentStatus archive_result(Agent& agent, bool accepted) {
    // Set before anything can fail: if the state folder cannot be written, this process must not
    // send the result again with each poll.
    const bool first = !agent.resultSent;
    agent.resultSent = true;
    agent.resultAccepted = accepted;
    // The action has ended even if the history cannot be written.
    AgentStatus status = add_to_history(agent, accepted);
    if (!status.ok() && first) {
        print_error(AGENT, status.text + "; action " + agent.action.id + " is not in the history");
    }
    status = remove_action(agent.settings.stateFolder);
    if (status.ok()) {
        agent.action = {};
        agent.resultSent = false;
        agent.attributesDue = true;
    }
    return status;
}

AgentStatus deliver_result(Agent& agent, bool offered) {
    // The result must be stored before it is sent. Otherwise a power cut could lead to a second,
    // different result.
    if (agent.resultUnstored) {
        AgentStatus status = store(agent);
        if (!status.ok()) {
            return status;
        }
        agent.resultUnstored = false;
        remove_unused_files(agent);
    }
    if (agent.action.succeeded && agent.action.bootId != agent.bootId) {
        AgentStatus status = recheck_success(agent);
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

uint64_t monotonic_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * MS_PER_S +
           static_cast<uint64_t>(now.tv_nsec / NS_PER_MS);
}

bool wait_ms(const Agent& agent, uint32_t milliseconds) {
    const timespec span = {.tv_sec = static_cast<time_t>(milliseconds / MS_PER_S),
                           .tv_nsec = static_cast<long>(milliseconds % MS_PER_S) * NS_PER_MS};
    // Not resumed when a signal interrupts it, because the signal may ask the agent to stop.
    nanosleep(&span, nullptr);
    return !agent.stop;
}
