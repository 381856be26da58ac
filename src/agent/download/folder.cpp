#include "agent/folder.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "agent/stored_file.h"
#include "base/open_without_links.h"
#include "base/owned.h"
#include "base/replace_file.h"
#include "base/unique_fd.h"

namespace {

constexpr mode_t FILE_MODE = 0644;
constexpr mode_t FOLDER_MODE = 0700;
constexpr int DEPTH_MAX = 8;  // of nested folders that are removed

std::string real_path(const std::string& path) {
    const corvo::OwnedBlock<char> real(realpath(path.c_str(), nullptr));
    return real ? real.get() : "";
}

// "/config" for "/config/agent", "/" for "/config", "" for "/".
std::string parent_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return path.size() <= 1 ? "" : path.substr(0, slash == 0 ? 1 : slash);
}

bool others_can_write(const struct stat& status) {
    if ((status.st_mode & S_ISVTX) != 0) {
        return false;
    }
    return (status.st_mode & S_IWOTH) != 0 ||
           ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 && status.st_gid != getegid() &&
            geteuid() != 0);
}

bool is_same(const struct stat& left, const struct stat& right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

// Whether the folder or one of its parents is `wanted`. For a folder that does not exist the search
// starts at its first existing parent.
bool lies_in(std::string folder, const struct stat& wanted) {
    std::string real = real_path(folder);
    while (real.empty() && !folder.empty()) {
        folder = parent_of(folder);
        real = real_path(folder);
    }
    for (; !real.empty(); real = parent_of(real)) {
        struct stat status = {};
        if (stat(real.c_str(), &status) == 0 && is_same(status, wanted)) {
            return true;
        }
    }
    return false;
}

// As lies_in(), but folders whose path contains a symbolic link are ignored.
bool lies_without_links_in(std::string folder, const struct stat& wanted) {
    for (; !folder.empty(); folder = parent_of(folder)) {
        const corvo::UniqueFd opened(corvo::open_without_links(folder.c_str(), O_PATH));
        struct stat status = {};
        if (opened.valid() && fstat(opened.get(), &status) == 0 && is_same(status, wanted)) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string folder_open_to_others(const std::string& folder) {
    for (std::string path = real_path(folder); !path.empty(); path = parent_of(path)) {
        struct stat status = {};
        if (stat(path.c_str(), &status) == 0 && others_can_write(status)) {
            return path;
        }
    }
    return "";
}

bool folders_overlap(const std::string& packageFolder, const std::string& stateFolder) {
    if (packageFolder.starts_with(stateFolder) || stateFolder.starts_with(packageFolder)) {
        return true;
    }
    const corvo::UniqueFd opened(corvo::open_without_links(packageFolder.c_str(), O_PATH));
    struct stat status = {};
    if (opened.valid() && fstat(opened.get(), &status) == 0 && lies_in(stateFolder, status)) {
        return true;
    }
    return stat(stateFolder.c_str(), &status) == 0 && lies_without_links_in(packageFolder, status);
}

namespace {

AgentStatus folder_fault(const char* what, const std::string& path) {
    return errno == ELOOP ? agent_fault(AGENT_STORAGE, path + " is reached by a symbolic link")
                          : storage_fault(what, path);
}

bool is_on_a_card(const PackageFolder& place, int folder) {
    struct stat status = {};
    return fstat(folder, &status) == 0 &&
           std::ranges::none_of(place.notOn, [&status](const std::string& other) {
               struct stat otherStatus = {};
               return stat(other.c_str(), &otherStatus) == 0 && otherStatus.st_dev == status.st_dev;
           });
}

// As is_on_a_card() for a folder that does not exist: checks its first existing parent. Returns
// true when a parent cannot be opened for another reason; the caller then reports that reason.
bool is_below_a_card(const PackageFolder& place) {
    for (std::string path = parent_of(place.path); !path.empty(); path = parent_of(path)) {
        const corvo::UniqueFd folder(corvo::open_without_links(path.c_str(), O_PATH));
        if (folder.valid()) {
            return is_on_a_card(place, folder.get());
        }
        if (errno != ENOENT) {
            break;
        }
    }
    return true;
}

AgentStatus no_card(const PackageFolder& place) {
    return agent_fault(AGENT_NO_CARD, "no card is mounted for " + place.path);
}

// Creates the folder with this path; its parent exists.
AgentStatus make_one(const PackageFolder& place, const std::string& path) {
    const std::string above = parent_of(path);
    const corvo::UniqueFd parent(corvo::open_without_links(above.c_str(), O_RDONLY | O_DIRECTORY));
    if (!parent.valid()) {
        return folder_fault("open", above);
    }
    if (!is_on_a_card(place, parent.get())) {
        return no_card(place);
    }
    const char* const name = path.c_str() + path.rfind('/') + 1;
    if (mkdirat(parent.get(), name, FOLDER_MODE) != 0) {
        return errno == EEXIST ? AgentStatus{} : storage_fault("make", path);
    }
    // Without this a power cut could lose the new folder, and with it files that were flushed in
    // it.
    return fsync(parent.get()) == 0 ? AgentStatus{} : storage_fault("flush", above);
}

bool remove_tree(int folder, const char* name, int depth) {
    if (unlinkat(folder, name, 0) == 0 || errno == ENOENT) {
        return true;
    }
    if (errno != EISDIR) {
        return false;
    }
    struct stat inside = {};
    struct stat outside = {};
    corvo::UniqueFd inner(openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!inner.valid() || fstat(inner.get(), &inside) != 0 || fstat(folder, &outside) != 0) {
        return false;
    }
    if (depth == 0 || inside.st_dev != outside.st_dev) {
        errno = ENOTEMPTY;
        return false;
    }
    const corvo::OwnedDirectory directory(fdopendir(inner.get()));
    if (!directory) {
        return false;
    }
    const int descriptor = inner.release();  // the directory closes it
    while (const dirent* entry = readdir(directory.get())) {
        const std::string_view entryName = entry->d_name;
        if (entryName != "." && entryName != ".." &&
            !remove_tree(descriptor, entry->d_name, depth - 1)) {
            return false;
        }
    }
    return unlinkat(folder, name, AT_REMOVEDIR) == 0;
}

}  // namespace

AgentStatus open_folder(const PackageFolder& place, OpenFolder& folder) {
    const int flags = O_RDONLY | O_DIRECTORY;
    folder.path = place.path;
    folder.descriptor.reset(corvo::open_without_links(place.path.c_str(), flags));
    if (!folder.descriptor.valid()) {
        AgentStatus status = folder_fault("open", place.path);
        return is_below_a_card(place) ? status : no_card(place);
    }
    if (!is_on_a_card(place, folder.get())) {
        return no_card(place);
    }
    const std::string open = folder_open_to_others(place.path);
    return open.empty() ? AgentStatus{}
                        : agent_fault(AGENT_STORAGE, place.path + ": others can write to " + open);
}

AgentStatus make_folder(const PackageFolder& place, OpenFolder& folder) {
    for (size_t end = place.path.find('/', 1); end != std::string::npos;
         end = place.path.find('/', end + 1)) {
        const std::string path = place.path.substr(0, end);
        const corvo::UniqueFd existing(corvo::open_without_links(path.c_str(), O_PATH));
        AgentStatus status;
        if (!existing.valid()) {
            status = errno == ENOENT ? make_one(place, path) : folder_fault("open", path);
        }
        if (!status.ok()) {
            return status;
        }
    }
    return open_folder(place, folder);
}

bool find_entry(const OpenFolder& folder, const std::string& name, struct stat& status) {
    return fstatat(folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

AgentStatus remove_entry(const OpenFolder& folder, const std::string& name) {
    return remove_tree(folder.get(), name.c_str(), DEPTH_MAX)
               ? AgentStatus{}
               : storage_fault("remove", folder.path + name);
}

AgentStatus store_in_folder(const OpenFolder& folder, const std::string& name,
                            std::string_view content) {
    const std::string fresh = fresh_path(name);
    AgentStatus status = remove_entry(folder, fresh);
    if (!status.ok()) {
        return status;
    }
    if (!corvo::create_flushed_file(folder.get(), fresh.c_str(), FILE_MODE, content)) {
        return storage_fault("write", folder.path + fresh);
    }
    struct stat old = {};
    if (find_entry(folder, name, old) && S_ISDIR(old.st_mode)) {
        status = remove_entry(folder, name);
    }
    if (status.ok() && renameat(folder.get(), fresh.c_str(), folder.get(), name.c_str()) != 0) {
        status = storage_fault("replace", folder.path + name);
    }
    return status.ok() ? flush_folder(folder) : status;
}

AgentStatus flush_folder(const OpenFolder& folder) {
    return fsync(folder.get()) == 0 ? AgentStatus{} : storage_fault("flush", folder.path);
}
