#include "fetch.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>

#include "agent/camera_state.h"
#include "agent/download.h"
#include "base/monotonic_clock.h"
#include "cli/progress_line.h"
#include "offer.h"
#include "package/camera_rules.h"
#include "package/files.h"
#include "package/signed_manifest.h"
#include "result.h"

namespace {

// Bytes that stay free on the card for other files.
constexpr uint64_t SPACE_LEFT = 1048576;
constexpr uint32_t PROGRESS_STEPS = 10;
// While a download runs, the server is polled at this interval, so that a canceled action does not
// continue to use a slow or expensive connection. Compared with the download, these polls cost the
// server little.
constexpr int64_t POLL_INTERVAL_MS = 10000;
constexpr uint32_t GONE_OFFERS_MAX = 2;
// An answer that is neither the file nor a known refusal may be a temporary fault of a proxy, so
// the request is repeated.
constexpr int UNEXPECTED_ANSWERS_MAX = 3;
constexpr uint32_t UNEXPECTED_PAUSE_MS = 2000;

// The state of one package's download.
struct Fetching {
    OpenFolder folder = {};
    uint64_t all = 0;     // bytes of the images
    uint64_t before = 0;  // bytes of those that are complete
    uint32_t step = 0;    // last reported step, of PROGRESS_STEPS
    int64_t polledAtMs = 0;
    bool withdrawn = false;  // the server no longer offers the action
};

std::string names_of(const DdiAction& offer) {
    std::string names;
    for (const DdiFile& file : offer.files) {
        names += (names.empty() ? "" : ", ") + file.name;
    }
    return names;
}

// Whether the offer has exactly the files that the manifest names.
bool is_complete(const DdiAction& offer, const std::string& manifestName,
                 const std::vector<PackageFile>& files, std::string& wrong) {
    for (const PackageFile& file : files) {
        const DdiFile* const offered = find_file(offer, file.name);
        if (offered == nullptr || offered->size != file.size) {
            wrong = "the manifest names " + file.name + " of " + std::to_string(file.size) +
                    " bytes, the server " +
                    (offered == nullptr ? "does not offer it"
                                        : "offers " + std::to_string(offered->size));
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

uint64_t size_of_file(const OpenFolder& folder, const std::string& name) {
    struct stat status = {};
    return find_entry(folder, name, status) && S_ISREG(status.st_mode)
               ? static_cast<uint64_t>(status.st_size)
               : 0;
}

uint64_t bytes_fetched(const OpenFolder& folder, const std::string& name) {
    return std::max(size_of_file(folder, name), size_of_file(folder, name + PART_SUFFIX));
}

bool has_room(const OpenFolder& folder, const std::vector<PackageFile>& files, std::string& wrong) {
    uint64_t needed = SPACE_LEFT;
    for (const PackageFile& file : files) {
        const uint64_t fetched = bytes_fetched(folder, file.name);
        needed += file.size - std::min(file.size, fetched);
    }
    const uint64_t room = free_space(folder.get());
    wrong = "the package needs " + std::to_string(needed) + " more bytes, " + folder.path +
            " has space for " + std::to_string(room);
    return room >= needed;
}

// Polls the server at intervals. Returns whether the action is still offered.
bool still_wanted(Agent& agent, Fetching& fetching) {
    const int64_t now = corvo::monotonic_ms();
    if (now - fetching.polledAtMs < POLL_INTERVAL_MS) {
        return true;
    }
    fetching.polledAtMs = now;
    DdiPoll poll;
    fetching.withdrawn = agent.server.poll(poll).ok() && poll.deployment.empty();
    return !fetching.withdrawn;
}

bool show_progress(Agent& agent, Fetching& fetching, const DdiFile& file, uint64_t bytes) {
    const uint64_t done = fetching.before + bytes;
    const auto step = static_cast<uint32_t>(done * PROGRESS_STEPS / fetching.all);
    if (step > fetching.step) {
        fetching.step = step;
        const std::string text =
            "downloading " + file.name + ", " + std::to_string(done * 100 / fetching.all) + " %";
        if (isatty(STDOUT_FILENO) != 1) {
            log_action(agent, text);
        }
        const AgentStatus sent =
            send_status(agent, DdiExecution::DOWNLOAD, text, step, PROGRESS_STEPS);
        fetching.withdrawn = sent.result == AGENT_GONE;
    }
    return !fetching.withdrawn && still_wanted(agent, fetching);
}

// Records the status of a file that was verified while it was downloaded. A later change of the
// file is found by comparing its status.
void record_checked_file(Agent& agent, const OpenFolder& folder, const std::string& name) {
    struct stat status = {};
    if (find_entry(folder, name, status)) {
        agent.package.checked.push_back(stamp_of(folder.path + name, Links::REFUSED, status));
    }
}

AgentStatus request_file(Agent& agent, Fetching& fetching, const DdiFile& file,
                         const PackageFile* content) {
    // The server may store a status for each request for a file.
    if (++agent.action.statuses >= STATUSES_MAX) {
        return agent_fault(AGENT_DIFFERENT, "too many interrupted downloads");
    }
    ProgressLine line(content != nullptr, file.name + " downloaded",
                      std::max<uint64_t>(file.size, 1));
    const auto progress = [&](uint64_t bytes) {
        line.show(bytes);
        return content == nullptr || show_progress(agent, fetching, file, bytes);
    };
    const uint64_t fetched = bytes_fetched(fetching.folder, file.name);
    AgentStatus status = download_file(agent.files, file, content, fetching.folder, progress);
    agent.polling.progressed =
        agent.polling.progressed || bytes_fetched(fetching.folder, file.name) > fetched;
    if (status.ok()) {
        record_checked_file(agent, fetching.folder, file.name);
        fetching.before += content == nullptr ? 0 : file.size;
    }
    return status;
}

AgentStatus fetch_file(Agent& agent, Fetching& fetching, const DdiFile& file,
                       const PackageFile* content) {
    AgentStatus status = request_file(agent, fetching, file, content);
    for (int answers = 1; status.result == AGENT_MALFORMED && answers < UNEXPECTED_ANSWERS_MAX;
         ++answers) {
        if (!wait_ms(agent, UNEXPECTED_PAUSE_MS)) {
            return agent_stopped();
        }
        status = request_file(agent, fetching, file, content);
    }
    return status;
}

// Decides what a failed download means for the action.
AgentStatus handle_failure(Agent& agent, const Fetching& fetching, AgentStatus status) {
    // Stores the number of requests, so that a restart of the agent does not lose it.
    AgentStatus stored = store(agent);
    if (!stored.ok()) {
        return stored;
    }
    switch (status.result) {
        case AGENT_STOPPED:
            return agent.stop || !fetching.withdrawn ? status : agent_fault(AGENT_GONE, "");
        case AGENT_GONE:
            // Either the file is missing or the action has ended. The next poll shows which.
            if (++agent.package.goneOffers < GONE_OFFERS_MAX) {
                return status;
            }
            return finish_action(agent, false, status.text);
        case AGENT_STORAGE:
            // The card may have been removed, and may be inserted again.
            if (waits_for_card(agent)) {
                return agent_fault(AGENT_NO_CARD, status.text);
            }
            return finish_action(agent, false, status.text);
        case AGENT_DIFFERENT:
        case AGENT_MALFORMED:
            return finish_action(agent, false, status.text);
        default:
            return status;
    }
}

// Downloads manifest and signature before the large files, verifies them and checks that this
// camera accepts the package. If not, the stage becomes ACTION_RESULT.
AgentStatus fetch_manifest(Agent& agent, Fetching& fetching, const DdiAction& offer,
                           Manifest& manifest) {
    const DdiFile* const file = find_manifest(offer);
    if (file == nullptr) {
        return finish_action(
            agent, false,
            "expected one manifest with its signature and the files that it names, but "
            "the server offers " +
                names_of(offer));
    }
    const DdiFile* const signature = find_file(offer, file->name + SIGNATURE_SUFFIX);
    if (file->size > MANIFEST_SIZE_MAX || signature->size > SIGNATURE_SIZE_MAX) {
        return finish_action(agent, false, file->name + " or its signature is too large");
    }
    for (const DdiFile* small : {file, signature}) {
        const AgentStatus status = fetch_file(agent, fetching, *small, nullptr);
        if (!status.ok()) {
            return handle_failure(agent, fetching, status);
        }
    }
    const PackageStatus packageStatus = read_accepted_manifest(agent, manifest);
    if (!packageStatus.ok()) {
        return finish_action(agent, false, packageStatus.text);
    }
    for (const ManifestModule& module : manifest.modules) {
        if (module.chunked) {
            return finish_action(
                agent, false,
                module.file + " is a chunked image, which this agent cannot download");
        }
    }
    return {};
}

AgentStatus fetch_files(Agent& agent, Fetching& fetching, const DdiAction& offer) {
    std::string wrong;
    Manifest manifest;
    AgentStatus status = fetch_manifest(agent, fetching, offer, manifest);
    if (!status.ok() || agent.action.stage == ACTION_RESULT) {
        return status;
    }
    const std::vector<PackageFile> files = package_files(manifest);
    if (!is_complete(offer, agent.action.manifestFile, files, wrong) ||
        !has_room(fetching.folder, files, wrong)) {
        return finish_action(agent, false, wrong);
    }
    for (const PackageFile& file : files) {
        fetching.all += file.size;
    }
    for (const PackageFile& file : files) {
        status = fetch_file(agent, fetching, *find_file(offer, file.name), &file);
        if (!status.ok()) {
            return handle_failure(agent, fetching, status);
        }
    }
    log_action(agent, "version " + manifest.version + " is downloaded and verified");
    agent.action.stage = ACTION_WAITING;
    return store(agent);
}

}  // namespace

PackageStatus read_accepted_manifest(const Agent& agent, Manifest& manifest) {
    Signer signer;
    PackageStatus status =
        read_signed_manifest(agent.package.folder.path + agent.action.manifestFile, agent.keyring,
                             time(nullptr), manifest, signer, FileKind::NO_LINK);
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

PackageStatus check_content(Agent& agent, const Manifest& manifest) {
    for (const PackageFile& file : package_files(manifest)) {
        const std::string path = agent.package.folder.path + file.name;
        const auto known = std::ranges::find(agent.package.checked, path, &CheckedFile::path);
        if (known != agent.package.checked.end()) {
            if (check_unchanged(*known).ok()) {
                continue;
            }
            agent.package.checked.erase(known);
        }
        CheckedFile checked;
        PackageStatus status = check_file(
            path, file, [](uint64_t) {}, checked, Links::REFUSED);
        if (!status.ok()) {
            return status;
        }
        agent.package.checked.push_back(std::move(checked));
    }
    return {};
}

AgentStatus fetch_package(Agent& agent, const DdiAction& offer) {
    std::string wrong;
    const bool fit = camera_is_fit(agent.settings.fitnessCommand, wrong);
    if (agent.stop) {
        return agent_stopped();  // the signal may have killed the fitness command
    }
    if (!fit) {
        wait_for(agent, wrong);
        return {};
    }
    end_wait(agent);
    Fetching fetching = {.polledAtMs = corvo::monotonic_ms()};
    AgentStatus status = make_folder(agent.package.folder, fetching.folder);
    if (!status.ok()) {
        return waits_for_card(agent) ? AgentStatus{} : finish_action(agent, false, status.text);
    }
    status = fetch_files(agent, fetching, offer);
    return status.result == AGENT_NO_CARD ? AgentStatus{} : status;
}
