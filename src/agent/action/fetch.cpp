#include "fetch.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <utility>

#include "agent/camera_state.h"
#include "agent/chunked_download.h"
#include "agent/download.h"
#include "agent/publish.h"
#include "base/monotonic_clock.h"
#include "cli/progress_line.h"
#include "offer.h"
#include "package/camera_rules.h"
#include "package/files.h"
#include "package/signed_manifest.h"
#include "patience.h"
#include "result.h"
#include "sources.h"

namespace {

// Bytes that stay free on the card for other files.
constexpr uint64_t SPACE_LEFT = 1048576;
constexpr uint32_t PROGRESS_STEPS = 10;
// The server stores each status. Of a download that takes less than this, only its end is of use,
// and the statuses of the upgrade show that.
constexpr int64_t REPORT_INTERVAL_MS = 60000;
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
    uint64_t all = 0;       // bytes to be downloaded for the images
    uint64_t before = 0;    // bytes of files that are complete
    uint64_t expected = 0;  // of the chunked image that is downloaded now, part of `all`
    uint32_t step = 0;      // last reported step, of PROGRESS_STEPS
    int64_t polledAtMs = 0;
    int64_t reportedAtMs = 0;
    bool withdrawn = false;  // the server no longer offers the action
};

std::string names_of(const DdiAction& offer) {
    std::string names;
    for (const DdiFile& file : offer.files) {
        names += (names.empty() ? "" : ", ") + file.name;
    }
    return names;
}

// The files that the package has on the server.
std::vector<ManifestFile> offered_files(const Manifest& manifest) {
    std::vector<ManifestFile> files;
    if (manifest.combined()) {
        const PackageFile file = package_files(manifest).front();
        return {{.name = file.name, .size = file.size}};
    }
    for (const ManifestModule& module : manifest.modules) {
        if (module.chunked) {
            files.push_back(module.chunked->frames);
            files.push_back(module.chunked->index);
        } else {
            files.push_back({.name = module.file, .size = module.size});
        }
    }
    return files;
}

// Whether the offer has exactly the files that the manifest names.
bool is_complete(const DdiAction& offer, const std::string& manifestName,
                 const std::vector<ManifestFile>& files, std::string& wrong) {
    for (const ManifestFile& file : files) {
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
                           std::ranges::find(files, file.name, &ManifestFile::name) != files.end();
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

bool has_room(const OpenFolder& folder, const Manifest& manifest, std::string& wrong) {
    uint64_t needed = SPACE_LEFT;
    const auto add = [&](const std::string& name, uint64_t size) {
        needed += size - std::min(size, bytes_fetched(folder, name));
    };
    for (const PackageFile& file : package_files(manifest)) {
        add(file.name, file.size);
    }
    for (const ManifestModule& module : manifest.modules) {
        if (module.chunked) {
            add(module.chunked->index.name, module.chunked->index.size);
        }
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
    // What has arrived twice counts once.
    const uint64_t done = std::min(fetching.before + bytes, fetching.all);
    const auto step = static_cast<uint32_t>(done * PROGRESS_STEPS / fetching.all);
    if (step > fetching.step) {
        fetching.step = step;
        agent.polling.bytesFetched = done;
        agent.polling.bytesToFetch = fetching.all;
        publish_status(agent, {});
        const std::string text =
            "downloading " + file.name + ", " + std::to_string(done * 100 / fetching.all) + " %";
        if (isatty(STDOUT_FILENO) != 1) {
            log_action(agent, text);
        }
        const int64_t now = corvo::monotonic_ms();
        if (now - fetching.reportedAtMs >= REPORT_INTERVAL_MS) {
            fetching.reportedAtMs = now;
            const AgentStatus sent =
                send_status(agent, DdiExecution::DOWNLOAD, text, step, PROGRESS_STEPS);
            fetching.withdrawn = sent.result == AGENT_GONE;
        }
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

// The server may store a status for each request for a file.
AgentStatus count_request(Agent& agent) {
    return ++agent.action.statuses < STATUSES_MAX
               ? AgentStatus{}
               : agent_fault(AGENT_DIFFERENT, "too many interrupted downloads");
}

AgentStatus request_file(Agent& agent, Fetching& fetching, const DdiFile& file,
                         const PackageFile* content) {
    AgentStatus counted = count_request(agent);
    if (!counted.ok()) {
        return counted;
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

// Requests again after an answer that may be a temporary fault.
AgentStatus repeat(Agent& agent, const std::function<AgentStatus()>& request) {
    AgentStatus status = request();
    for (int answers = 1; status.result == AGENT_MALFORMED && answers < UNEXPECTED_ANSWERS_MAX;
         ++answers) {
        if (!wait_ms(agent, UNEXPECTED_PAUSE_MS)) {
            return agent_stopped();
        }
        status = request();
    }
    return status;
}

AgentStatus fetch_file(Agent& agent, Fetching& fetching, const DdiFile& file,
                       const PackageFile* content) {
    return repeat(agent, [&] { return request_file(agent, fetching, file, content); });
}

// Downloads the chunks of an image that the camera does not have. `all` counts all of NAME.zst
// until it is known which these are.
AgentStatus request_chunks(Agent& agent, Fetching& fetching, const ChunkedImage& image,
                           std::vector<ChunkSource>& sources) {
    const std::string& name = image.module.file;
    std::optional<ProgressLine> line;
    uint64_t logged = 0;
    const ChunkedCalls calls = {
        .request = [&] { return count_request(agent); },
        .plan =
            [&](uint64_t toFetch, uint64_t copied) {
                // It may change a little with each chunk that turns out to be another one.
                if (!line || toFetch > 2 * logged) {
                    logged = toFetch;
                    log_action(agent, name + ": " + std::to_string(copied) + " of " +
                                          std::to_string(image.module.size) +
                                          " bytes are on the camera, " + std::to_string(toFetch) +
                                          " bytes of " + image.frames.name + " to be downloaded");
                }
                fetching.all += toFetch;
                fetching.all -= std::exchange(fetching.expected, toFetch);
                line.emplace(true, image.frames.name + " downloaded",
                             std::max<uint64_t>(toFetch, 1));
            },
        .progress =
            [&](uint64_t bytes) {
                line->show(std::min(bytes, fetching.expected));
                return show_progress(agent, fetching, image.frames, bytes);
            }};
    const uint64_t stored = bytes_fetched(fetching.folder, name);
    AgentStatus status = download_chunked(agent.files, image, sources, fetching.folder, calls);
    agent.polling.progressed =
        agent.polling.progressed || bytes_fetched(fetching.folder, name) > stored;
    if (status.ok()) {
        record_checked_file(agent, fetching.folder, name);
        fetching.before += std::exchange(fetching.expected, 0);
    }
    return status;
}

AgentStatus fetch_chunked(Agent& agent, Fetching& fetching, const DdiAction& offer,
                          const ManifestModule& module) {
    const ManifestFile& index = module.chunked->index;
    const DdiFile& offered = *find_file(offer, index.name);
    if (offered.sha256 != index.sha256) {
        return agent_fault(AGENT_DIFFERENT,
                           index.name + ": server and manifest name different digests or sizes");
    }
    AgentStatus status = fetch_file(agent, fetching, offered, nullptr);
    if (!status.ok()) {
        return status;
    }
    fetching.before += index.size;
    fetching.expected = module.chunked->frames.size;
    const char slot = boot_slot();
    const ChunkedImage image = {.module = module,
                                .frames = *find_file(offer, module.chunked->frames.name),
                                // The image will be in the slot that does not run now.
                                .storedIndex = stored_index_path(agent, module, other_slot(slot))};
    std::vector<ChunkSource> sources = open_sources(agent, module, slot);
    return repeat(agent, [&] { return request_chunks(agent, fetching, image, sources); });
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
    PackageStatus accepted;
    if (!accept_manifest(agent, manifest, accepted)) {
        return handle_failure(agent, fetching, agent_stopped());
    }
    if (accepted.ok()) {
        return {};
    }
    if (waits_for_card(agent)) {
        return handle_failure(agent, fetching, agent_fault(AGENT_NO_CARD, accepted.text));
    }
    return finish_action(agent, false, accepted.text);
}

// Downloads the images, each with its file in the manifest.
AgentStatus fetch_images(Agent& agent, Fetching& fetching, const DdiAction& offer,
                         const Manifest& manifest) {
    for (const PackageFile& file : package_files(manifest)) {
        const ManifestModule& module = file.modules.front();
        AgentStatus status = module.chunked
                                 ? fetch_chunked(agent, fetching, offer, module)
                                 : fetch_file(agent, fetching, *find_file(offer, file.name), &file);
        if (!status.ok()) {
            return status;
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
    const std::vector<ManifestFile> files = offered_files(manifest);
    if (!is_complete(offer, agent.action.manifestFile, files, wrong) ||
        !has_room(fetching.folder, manifest, wrong)) {
        return finish_action(agent, false, wrong);
    }
    for (const ManifestFile& file : files) {
        fetching.all += file.size;
    }
    status = fetch_images(agent, fetching, offer, manifest);
    if (!status.ok()) {
        return handle_failure(agent, fetching, status);
    }
    log_action(agent, "version " + manifest.version + " is downloaded and verified");
    agent.action.stage = ACTION_WAITING;
    return store(agent);
}

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

}  // namespace

bool accept_manifest(const Agent& agent, Manifest& manifest, PackageStatus& status) {
    return wait_until(agent, [&] {
        status = read_accepted_manifest(agent, manifest);
        return is_final(status);
    });
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
    const int64_t now = corvo::monotonic_ms();
    Fetching fetching = {.polledAtMs = now, .reportedAtMs = now};
    AgentStatus status = make_folder(agent.package.folder, fetching.folder);
    if (!status.ok()) {
        return waits_for_card(agent) ? AgentStatus{} : finish_action(agent, false, status.text);
    }
    status = fetch_files(agent, fetching, offer);
    return status.result == AGENT_NO_CARD ? AgentStatus{} : status;
}
