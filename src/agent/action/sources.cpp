#include "sources.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "package/modules.h"
#include "package/partition.h"

namespace {

bool is_same(const corvo::UniqueFd& left, const corvo::UniqueFd& right) {
    struct stat leftStatus = {};
    struct stat rightStatus = {};
    if (fstat(left.get(), &leftStatus) != 0 || fstat(right.get(), &rightStatus) != 0) {
        return false;
    }
    // One device may have several nodes.
    const bool areDevices = S_ISBLK(leftStatus.st_mode) || S_ISCHR(leftStatus.st_mode);
    return areDevices
               ? leftStatus.st_rdev == rightStatus.st_rdev
               : leftStatus.st_dev == rightStatus.st_dev && leftStatus.st_ino == rightStatus.st_ino;
}

void add_source(std::vector<ChunkSource>& sources, ChunkSource source) {
    const bool isKnown = std::ranges::any_of(
        sources, [&](const ChunkSource& known) { return is_same(known.file, source.file); });
    if (source.file.valid() && !isKnown) {
        sources.push_back(std::move(source));
    }
}

std::string existing_index(const Agent& agent, const ManifestModule& module, char slot) {
    const std::string path = stored_index_path(agent, module, slot);
    return path.empty() || access(path.c_str(), R_OK) != 0 ? "" : path;
}

}  // namespace

char other_slot(char slot) {
    return slot == 'A' ? 'B' : slot == 'B' ? 'A' : '?';
}

std::string stored_index_path(const Agent& agent, const ManifestModule& module, char slot) {
    return slot == '?' ? "" : agent.settings.stateFolder + module.name + '.' + slot + INDEX_SUFFIX;
}

std::vector<ChunkSource> open_sources(const Agent& agent, const ManifestModule& module, char slot) {
    std::vector<ChunkSource> sources;
    const OtaPackageEntry* const entry = find_module(module.name);
    if (entry != nullptr) {
        add_source(sources, {.file = open_running_partition(*entry),
                             .storedIndex = existing_index(agent, module, slot)});
        add_source(sources, {.file = open_partition(*entry),
                             .storedIndex = existing_index(agent, module, other_slot(slot))});
    }
    for (const std::string& setting : agent.settings.deltaSources) {
        if (setting.starts_with(module.name + '=')) {
            const std::string path = setting.substr(module.name.size() + 1);
            // O_NONBLOCK, because opening a pipe of this name would block.
            add_source(
                sources,
                {.file = corvo::UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))});
        }
    }
    return sources;
}
