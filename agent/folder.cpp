#include "agent/folder.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "base/open_without_links.h"
#include "base/owned.h"
#include "base/unique_fd.h"

namespace {

std::string real_path(const std::string& path) {
    const corvo::OwnedBlock<char> real(realpath(path.c_str(), nullptr));
    return real ? real.get() : "";
}

// "/" of "/config", "/config" of "/config/agent"; empty of "/".
std::string parent_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return path.size() <= 1 ? "" : path.substr(0, slash == 0 ? 1 : slash);
}

bool others_can_write(const struct stat& status) {
    if ((status.st_mode & S_ISVTX) != 0) {
        return false;
    }
    return (status.st_mode & S_IWOTH) != 0 ||
           ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 && status.st_gid != getegid());
}

bool is_same(const struct stat& left, const struct stat& right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

// Whether the folder, or one that it lies in, is `wanted`. What does not exist lies in what does.
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

// The same of a path without links; what is reached by one is nowhere.
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
