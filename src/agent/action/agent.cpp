#include "agent/agent.h"

#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "agent/check_settings.h"
#include "agent/download.h"
#include "base/owned.h"
#include "cli/error_line.h"

namespace {

constexpr uint64_t MS_PER_S = 1000;
constexpr long NS_PER_MS = 1000000;
// After so many statuses of an action, reasons for waiting are no longer sent.
constexpr uint32_t WAITING_STATUSES_MAX = 100;

// Whether the entry is one of the files or a temporary file of its download ("NAME.part..."). Of a
// chunked image NAME.zst is offered, and NAME is made.
bool belongs_to(const std::string& entry, const std::vector<OfferedFile>& files) {
    const auto belongs = [&entry](const std::string& name) {
        return entry == name || entry.starts_with(name + PART_SUFFIX);
    };
    return std::ranges::any_of(files, [&](const OfferedFile& file) {
        return belongs(file.name) ||
               (file.name.ends_with(FRAMES_SUFFIX) &&
                belongs(file.name.substr(0, file.name.size() - strlen(FRAMES_SUFFIX))));
    });
}

}  // namespace

Agent::Agent(const AgentSettings& given, Keyring keys, std::atomic<bool>& stopFlag)
    : settings(given),
      keyring(std::move(keys)),
      stop(stopFlag),
      server(given.server, stopFlag),
      files(given.server, stopFlag, server),
      package({.folder = package_folder(given)}) {}

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
    if (agent.polling.isDelayed ||
        (agent.action.statuses >= STATUSES_MAX && execution != DdiExecution::DOWNLOADED)) {
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

void wait_for(Agent& agent, const std::string& reason) {
    if (!agent.polling.isDelayed && agent.waiting.reported != reason) {
        agent.waiting.reported = reason;
        log_action(agent, "waits for " + reason);
        // The number is limited, because a reason that often changes would use up all statuses.
        if (agent.action.statuses < WAITING_STATUSES_MAX) {
            (void)send_status(agent, DdiExecution::PROCEEDING, "waits for " + reason);
        }
    }
    agent.waiting.reason = reason;
    agent.waiting.id = agent.action.id;
}

void end_wait(Agent& agent) {
    if (!agent.waiting.reported.empty()) {
        log_action(agent, "no longer waiting for " + agent.waiting.reported);
        agent.waiting.reported.clear();
    }
}

void remove_unused_files(const Agent& agent) {
    OpenFolder folder;
    AgentStatus status = open_folder(agent.package.folder, folder);
    const bool none =
        !status.ok() || agent.action.stage == ACTION_NONE || agent.action.stage == ACTION_RESULT;
    // Without a card, files below the mount point were stored there by mistake. They are removed.
    if (status.result == AGENT_NO_CARD) {
        status = open_folder({.path = agent.package.folder.path}, folder);
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
    AgentStatus status = open_folder(agent.package.folder, folder);
    struct stat manifest = {};
    // The service never deletes the manifest, so this is another card. Partitions may be half
    // written, and only the package's own card can complete them.
    if (status.ok() && agent.action.attempts > 0 &&
        !find_entry(folder, agent.action.manifestFile, manifest)) {
        status = agent_fault(AGENT_NO_CARD,
                             agent.package.folder.path + agent.action.manifestFile + " is missing");
    }
    if (status.result != AGENT_NO_CARD) {
        return false;
    }
    wait_for(agent, "a card: " + status.text);
    return true;
}

bool wait_ms(const Agent& agent, uint32_t milliseconds) {
    const timespec span = {.tv_sec = static_cast<time_t>(milliseconds / MS_PER_S),
                           .tv_nsec = static_cast<long>(milliseconds % MS_PER_S) * NS_PER_MS};
    // Not resumed when a signal interrupts it, because the signal may ask the agent to stop.
    nanosleep(&span, nullptr);
    return !agent.stop;
}
