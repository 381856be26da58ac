#include "otactl/output_files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "base/replace_file.h"
#include "cli/error_line.h"
#include "otactl/commands.h"

namespace {

constexpr mode_t MODE = 0666;  // the user's umask decides

int failed(const std::string& what, const std::string& path) {
    print_error(OTACTL, "cannot " + what + " " + path + ": " + strerror(errno));
    return OTACTL_FAILED;
}

std::string directory_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// Without this a rename or a removal may not survive a power cut.
int flush_directory(const std::string& directory) {
    // Some network file systems cannot flush a directory and report EINVAL.
    return corvo::flush_folder(directory.c_str()) || errno == EINVAL ? static_cast<int>(OTACTL_OK)
                                                                     : failed("flush", directory);
}

}  // namespace

OutputFiles::~OutputFiles() {
    for (const std::string& path : paths_) {
        (void)unlink(part_of(path).c_str());
    }
}

std::string OutputFiles::part_of(const std::string& path) {
    return path + ".part";
}

int OutputFiles::create(const std::string& path, corvo::UniqueFd& file) {
    const auto plain = [](const std::string& of) {
        return std::filesystem::path(of).lexically_normal();
    };
    if (std::ranges::find(paths_, plain(path), plain) != paths_.end()) {
        print_error(OTACTL, path + " would be written twice");
        return OTACTL_FAILED;
    }
    const std::string part = part_of(path);
    (void)unlink(part.c_str());
    file.reset(open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, MODE));
    if (!file.valid()) {
        return failed("write", path);
    }
    paths_.push_back(path);
    return OTACTL_OK;
}

int OutputFiles::flush(const std::string& path, const corvo::UniqueFd& file) {
    return fsync(file.get()) == 0 ? static_cast<int>(OTACTL_OK) : failed("write", path);
}

int OutputFiles::write(const std::string& path, std::string_view text) {
    corvo::UniqueFd file;
    const int result = create(path, file);
    if (result != OTACTL_OK) {
        return result;
    }
    return corvo::write_all(file.get(), text) ? flush(path, file) : failed("write", path);
}

int OutputFiles::put_in_place(const std::string& stale) {
    std::set<std::string> directories;
    for (const std::string& path : paths_) {
        if (rename(part_of(path).c_str(), path.c_str()) != 0) {
            return failed("write", path);
        }
        directories.insert(directory_of(path));
    }
    paths_.clear();
    if (!stale.empty() && remove(stale.c_str()) != 0 && errno != ENOENT) {
        return failed("remove", stale);
    }
    for (const std::string& directory : directories) {
        const int result = flush_directory(directory);
        if (result != OTACTL_OK) {
            return result;
        }
    }
    return OTACTL_OK;
}
