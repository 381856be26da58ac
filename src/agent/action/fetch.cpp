// ACTION_DOWNLOADING: the package comes into the agent's folder.
#include <sys/stat.h>
#include <time.h>

#include <algorithm>

#include "agent/camera_state.h"
#include "agent/download.h"
#include "agent/steps.h"
#include "cli/progress_line.h"
#include "package/camera_rules.h"
#include "package/files.h"
#include "package/signed_manifest.h"

namespace {

// Left free on the card beside the package, for whatever else lies there.
constexpr uint64_t SPACE_LEFT = 1048576;
constexpr uint32_t PROGRESS_STEPS = 10;
// A download may take hours on a slow line, or be pointless on one that is paid by the byte. A poll
// every ten seconds is little beside what the download itself costs the server, and ends with it.
constexpr uint64_t LOOK_MS = 10000;
constexpr uint32_t GONE_OFFERS_MAX = 2;
// An answer that is neither the file nor a known refusal may be a proxy's bad moment, as for
// offers.
constexpr int UNEXPECTED_ANSWERS_MAX = 3;
constexpr uint32_t UNEXPECTED_PAUSE_MS = 2000;

// The state of one package's download.
struct Fetching {
    OpenFolder folder = {};
    uint64_t all = 0;     // bytes of the images
    uint64_t before = 0;  // bytes of those that are complete
    uint32_t step = 0;    // of PROGRESS_STEPS, that was told last
    uint64_t lookedAtMs = 0;
    bool asked = false;  // the server may have changed its mind
};

const DdiFile* find_file(const DdiAction& offer, const std::string& name) {
    const auto found = std::ranges::find(offer.files, name, &DdiFile::name);
    return found == offer.files.end() ? nullptr : &*found;
}

std::string names_of(const DdiAction& offer) {
    std::string names;
    for (const DdiFile& file : offer.files) {
        names += (names.empty() ? "" : ", ") + file.name;
    }
    return names;
}

// Whether the files are those that the manifest names, and no other.
bool is_complete(const DdiAction& offer, const std::string& manifestName,
                 const std::vector<PackageFile>& files, std::string& wrong) {
    for (const PackageFile& file : files) {
        const DdiFile* const offered = find_file(offer, file.name);
        if (offered == nullptr || offered->size != file.size) {
            wrong =
                "the manifest names " + file.name + " of " + std::to_string(file.size) +
                " bytes, the server " +
                (offered == nullptr ? "does not offer it" : "has " + std::to_string(offered->size));
            return false;
        }
    }
    for (const DdiFile& file : offer.files) {
        const bool named = file.name == manifestName ||
                           file.name == manifestName + SIGNATURE_SUFFIX ||
                           std::ranges::find(files, file.name, &PackageFile::name) != files.end();
        if (!named) {
            wrong = "the manifest does not name " + file.name;
            return false;
        }
    }
    return true;
}

uint64_t bytes_there(const OpenFolder& folder, const std::string& name) {
    struct stat status = {};
    return find_entry(folder, name, status) && S_ISREG(status.st_mode)
               ? static_cast<uint64_t>(status.st_size)
               : 0;
}

uint64_t bytes_fetched(const OpenFolder& folder, const std::string& name) {
    return std::max(bytes_there(folder, name), bytes_there(folder, name + PART_SUFFIX));
}

bool has_room(const OpenFolder& folder, const std::vector<PackageFile>& files, std::string& wrong) {
    uint64_t needed = SPACE_LEFT;
    for (const PackageFile& file : files) {
        const uint64_t there = bytes_fetched(folder, file.name);
        needed += file.size - std::min(file.size, there);
    }
    const uint64_t room = free_space(folder.get());
    wrong = "the package needs " + std::to_string(needed) + " more bytes, " + folder.path +
            " has room for " + std::to_string(room);
    return room >= needed;
}

// Whether the server still wants this action to go on, asked now and then.
bool still_wanted(Agent& agent, Fetching& fetching) {
    const uint64_t now = monotonic_ms();
    if (now - fetching.lookedAtMs < LOOK_MS) {
        return true;
    }
    fetching.lookedAtMs = now;
    DdiPoll poll;
    fetching.asked = agent.server.poll(poll).ok() && poll.deployment.empty();
    return !fetching.asked;
}

bool show_progress(Agent& agent, Fetching& fetching, const DdiFile& file, uint64_t bytes) {
    const uint64_t there = fetching.before + bytes;
    const auto step = static_cast<uint32_t>(there * PROGRESS_STEPS / fetching.all);
    if (step > fetching.step) {
        fetching.step = step;
        const std::string text =
            "downloading " + file.name + ", " + std::to_string(there * 100 / fetching.all) + " %";
        if (isatty(STDOUT_FILENO) != 1) {
            say(agent, text);
        }
        const AgentStatus told = tell(agent, DdiExecution::DOWNLOAD, text, step, PROGRESS_STEPS);
        fetching.asked = told.result == AGENT_GONE;
    }
    return !fetching.asked && still_wanted(agent, fetching);
}

// A file that was just fetched is what it must be; who changes it after that is found.
void remember_file(Agent& agent, const OpenFolder& folder, const std::string& name) {
    struct stat status = {};
    if (find_entry(folder, name, status)) {
        agent.checked.push_back(stamp_of(folder.path + name, Links::REFUSED, status));
    }
}

AgentStatus request_file(Agent& agent, Fetching& fetching, const DdiFile& file,
                         const PackageFile* content) {
    // The server may count every request for a file as a status.
    if (++agent.action.statuses >= STATUSES_MAX) {
        return agent_fault(AGENT_DIFFERENT, "given up: too many interrupted downloads");
    }
    ProgressLine line(content != nullptr, file.name + " downloaded",
                      std::max<uint64_t>(file.size, 1));
    const auto progress = [&](uint64_t bytes) {
        line.show(bytes);
        return content == nullptr || show_progress(agent, fetching, file, bytes);
    };
    const uint64_t fetched = bytes_fetched(fetching.folder, file.name);
    AgentStatus status = download_file(agent.files, file, content, fetching.folder, progress);
    agent.progressed = agent.progressed || bytes_fetched(fetching.folder, file.name) > fetched;
    if (status.ok()) {
        remember_file(agent, fetching.folder, file.name);
        fetching.before += content == nullptr ? 0 : file.size;
    }
    return status;
}

AgentStatus fetch_file(Agent& agent, Fetching& fetching, const DdiFile& file,
                       const PackageFile* content) {
    AgentStatus status = request_file(agent, fetching, file, content);
    for (int answers = 1; status.result == AGENT_MALFORMED && answers < UNEXPECTED_ANSWERS_MAX;
         ++answers) {
        if (!pause(agent, UNEXPECTED_PAUSE_MS)) {
            return agent_fault(AGENT_STOPPED, "asked to end");
        }
        status = request_file(agent, fetching, file, content);
    }
    return status;
}

// What a file that did not come means for the action.
AgentStatus cannot_fetch(Agent& agent, const Fetching& fetching, AgentStatus status) {
    // The count of requests must not be lost with this process.
    AgentStatus stored = store(agent);
    if (!stored.ok()) {
        return stored;
    }
    switch (status.result) {
        case AGENT_STOPPED:
            return agent.stop || !fetching.asked ? status : agent_fault(AGENT_GONE, "");
        case AGENT_GONE:
            // An action that has ended has no files either: the server says which it is.
            if (++agent.goneOffers < GONE_OFFERS_MAX) {
                return status;
            }
            return conclude(agent, false, status.text);
        case AGENT_MEDIUM:
            // Whoever takes the card out may put it back.
            if (waits_for_card(agent)) {
                return agent_fault(AGENT_NO_CARD, status.text);
            }
            return conclude(agent, false, status.text);
        case AGENT_DIFFERENT:
        case AGENT_MALFORMED:
            return conclude(agent, false, status.text);
        default:
            return status;
    }
}

// The manifest and its signature, before anything large: who made it, and whether this camera takes
// it. A record with a verdict when not.
AgentStatus fetch_manifest(Agent& agent, Fetching& fetching, const DdiAction& offer,
                           Manifest& manifest) {
    const DdiFile* const file = find_manifest(offer);
    if (file == nullptr) {
        return conclude(agent, false,
                        "expected one manifest with its signature and the files that it names, "
                        "the server offers " +
                            names_of(offer));
    }
    const DdiFile* const signature = find_file(offer, file->name + SIGNATURE_SUFFIX);
    if (file->size > MANIFEST_SIZE_MAX || signature->size > SIGNATURE_SIZE_MAX) {
        return conclude(agent, false, file->name + " or its signature is too large to be one");
    }
    for (const DdiFile* small : {file, signature}) {
        const AgentStatus status = fetch_file(agent, fetching, *small, nullptr);
        if (!status.ok()) {
            return cannot_fetch(agent, fetching, status);
        }
    }
    const PackageStatus taken = read_manifest(agent, manifest);
    return taken.ok() ? AgentStatus{} : conclude(agent, false, taken.text);
}

AgentStatus fetch_files(Agent& agent, Fetching& fetching, const DdiAction& offer) {
    std::string wrong;
    Manifest manifest;
    AgentStatus status = fetch_manifest(agent, fetching, offer, manifest);
    if (!status.ok() || agent.action.stage == ACTION_VERDICT) {
        return status;
    }
    const std::vector<PackageFile> files = package_files(manifest);
    if (!is_complete(offer, agent.action.manifestFile, files, wrong) ||
        !has_room(fetching.folder, files, wrong)) {
        return conclude(agent, false, wrong);
    }
    for (const PackageFile& file : files) {
        fetching.all += file.size;
    }
    for (const PackageFile& file : files) {
        status = fetch_file(agent, fetching, *find_file(offer, file.name), &file);
        if (!status.ok()) {
            return cannot_fetch(agent, fetching, status);
        }
    }
    say(agent, manifest.version + " is here, and is what was signed");
    agent.action.stage = ACTION_WAITING;
    return store(agent);
}

}  // namespace

const DdiFile* find_manifest(const DdiAction& offer) {
    const DdiFile* manifest = nullptr;
    for (const DdiFile& file : offer.files) {
        if (find_file(offer, file.name + SIGNATURE_SUFFIX) == nullptr) {
            continue;
        }
        if (manifest != nullptr) {
            return nullptr;
        }
        manifest = &file;
    }
    return manifest;
}

PackageStatus read_manifest(const Agent& agent, Manifest& manifest) {
    Signer signer;
    PackageStatus status =
        read_signed_manifest(agent.folder + agent.action.manifestFile, agent.keyring, time(nullptr),
                             manifest, signer, FileKind::NO_LINK);
    CameraRules rules = {.compatible = agent.settings.compatible, .runningVersion = ""};
    if (status.ok() && !agent.settings.versionFile.empty()) {
        status = read_running_version(agent.settings.versionFile, rules.runningVersion);
    }
    if (!status.ok()) {
        return status;
    }
    std::vector<PackageStatus> objections = camera_objections(manifest, rules);
    return objections.empty() ? PackageStatus{} : std::move(objections.front());
}

AgentStatus fetch_package(Agent& agent, const DdiAction& offer) {
    std::string wrong;
    const bool fit = camera_is_fit(agent.settings.fitnessCommand, wrong);
    if (agent.stop) {
        return agent_fault(AGENT_STOPPED, "");  // it may have ended the fitness command, too
    }
    if (!fit) {
        wait_for(agent, wrong);
        return {};
    }
    end_wait(agent);
    Fetching fetching = {.lookedAtMs = monotonic_ms()};
    AgentStatus status = make_folder(agent.place, fetching.folder);
    if (!status.ok()) {
        return waits_for_card(agent) ? AgentStatus{} : conclude(agent, false, status.text);
    }
    status = fetch_files(agent, fetching, offer);
    return status.result == AGENT_NO_CARD ? AgentStatus{} : status;
}
