#include "agent/stored_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace {

constexpr mode_t MODE = 0644;
constexpr mode_t FOLDER_MODE = 0700;

bool write_all(int file, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(file, content.data(), content.size());
        if (written < 0) {
            return false;
        }
        content.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

}  // namespace

AgentStatus medium_fault(const char* what, const std::string& path) {
    return agent_fault(AGENT_MEDIUM,
                       std::string("cannot ") + what + ' ' + path + ": " + strerror(errno));
}

std::string fresh_path(const std::string& path) {
    return path + ".new";
}

AgentStatus flush_folder_of(const std::string& path) {
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    const corvo::UniqueFd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened.valid() || fsync(opened.get()) != 0) {
        return medium_fault("flush", folder);
    }
    return {};
}

AgentStatus make_folder(const std::string& path) {
    for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
        const std::string folder = path.substr(0, end);
        if (mkdir(folder.c_str(), FOLDER_MODE) != 0 && errno != EEXIST) {
            return medium_fault("make", folder);
        }
    }
    struct stat status = {};
    const std::string last = path.substr(0, path.size() - 1);
    if (lstat(last.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        return agent_fault(AGENT_MEDIUM, last + " is no folder");
    }
    return {};
}

AgentStatus store_file(const std::string& path, std::string_view content) {
    const std::string fresh = fresh_path(path);
    (void)unlink(fresh.c_str());  // of a cut; nothing that lies there is written into
    {
        const corvo::UniqueFd file(
            open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, MODE));
        if (!file.valid() || !write_all(file.get(), content) || fsync(file.get()) != 0) {
            return medium_fault("write", fresh);
        }
    }
    if (rename(fresh.c_str(), path.c_str()) != 0) {
        return medium_fault("replace", path);
    }
    return flush_folder_of(path);
}

AgentStatus remove_stored_file(const std::string& path) {
    if (unlink(path.c_str()) != 0) {
        return errno == ENOENT ? AgentStatus{} : medium_fault("remove", path);
    }
    return flush_folder_of(path);
}
