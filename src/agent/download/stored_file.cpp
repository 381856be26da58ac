#include "agent/stored_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/replace_file.h"
#include "package/files.h"

namespace {

constexpr mode_t MODE = 0644;
constexpr mode_t FOLDER_MODE = 0700;
constexpr int ASIDE_MAX = 9;  // names PATH.bad ... PATH.bad9

}  // namespace

AgentStatus storage_fault(const char* what, const std::string& path) {
    return agent_fault(AGENT_STORAGE,
                       std::string("cannot ") + what + ' ' + path + ": " + strerror(errno));
}

std::string fresh_path(const std::string& path) {
    return path + ".new";
}

AgentStatus flush_folder_of(const std::string& path) {
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    return corvo::flush_folder(folder.c_str()) ? AgentStatus{} : storage_fault("flush", folder);
}

AgentStatus load_file(const std::string& path, size_t limit, std::string& content) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        AgentStatus fault = storage_fault("read", path);
        fault.result = errno == ENOENT ? AGENT_GONE : AGENT_STORAGE;
        return fault;
    }
    if (!S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) > limit) {
        return agent_fault(AGENT_MALFORMED,
                           path + (S_ISREG(status.st_mode) ? " is larger than this agent writes it"
                                                           : " is not a file"));
    }
    const PackageStatus read = read_small_file(path, limit, FileKind::NOT_A_LINK, content);
    return read.ok() ? AgentStatus{} : agent_fault(AGENT_STORAGE, read.text);
}

AgentStatus put_aside(const std::string& path) {
    for (int number = 1; number <= ASIDE_MAX; ++number) {
        const std::string aside = path + ".bad" + (number == 1 ? "" : std::to_string(number));
        if (rename(path.c_str(), aside.c_str()) == 0) {
            return flush_folder_of(path);
        }
        // These mean that the new name is a folder that is not empty, or that one of both is a
        // folder and the other a file. The next name is tried then.
        if (errno != ENOTEMPTY && errno != EEXIST && errno != EISDIR && errno != ENOTDIR) {
            break;
        }
    }
    return storage_fault("rename", path);
}

AgentStatus make_folder(const std::string& path) {
    for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
        const std::string folder = path.substr(0, end);
        if (mkdir(folder.c_str(), FOLDER_MODE) != 0) {
            if (errno != EEXIST) {
                return storage_fault("make", folder);
            }
            continue;
        }
        // Without this a power cut could lose the new folder, and with it files that were flushed
        // in it.
        AgentStatus status = flush_folder_of(folder);
        if (!status.ok()) {
            return status;
        }
    }
    struct stat status = {};
    const std::string last = path.substr(0, path.size() - 1);
    if (lstat(last.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        return agent_fault(AGENT_STORAGE, last + " is not a folder");
    }
    return {};
}

AgentStatus store_file(const std::string& path, std::string_view content) {
    const std::string fresh = fresh_path(path);
    // A power cut may have left this file. It is removed, never written into.
    if (unlink(fresh.c_str()) != 0 && errno == EISDIR) {
        (void)put_aside(fresh);
    }
    if (!corvo::create_flushed_file(AT_FDCWD, fresh.c_str(), MODE, content)) {
        return storage_fault("write", fresh);
    }
    bool replaced = rename(fresh.c_str(), path.c_str()) == 0;
    if (!replaced && errno == EISDIR) {
        AgentStatus aside = put_aside(path);
        if (!aside.ok()) {
            return aside;
        }
        replaced = rename(fresh.c_str(), path.c_str()) == 0;
    }
    if (!replaced) {
        return storage_fault("replace", path);
    }
    return flush_folder_of(path);
}

AgentStatus remove_stored_file(const std::string& path) {
    if (unlink(path.c_str()) != 0) {
        if (errno == EISDIR) {
            return put_aside(path);
        }
        return errno == ENOENT ? AgentStatus{} : storage_fault("remove", path);
    }
    return flush_folder_of(path);
}
