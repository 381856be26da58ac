// Opens and checks the folders of the agent's files, and detects folders that others can write to.
#ifndef AGENT_FOLDER_H
#define AGENT_FOLDER_H

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

#include "agent/agent_result.h"
#include "base/unique_fd.h"

// The folder for packages. It is on a memory card, whose content is not trusted.
struct PackageFolder {
    std::string path;  // absolute, without "." and "..", ends in "/"
    // The folder must not be on the file system of any of these folders; folders that do not exist
    // are ignored. Empty: any file system is allowed.
    std::vector<std::string> notOn = {};
};

// An open folder, for the functions that expect a file name in it.
struct OpenFolder {
    std::string path = {};  // for messages; ends in "/"
    corvo::UniqueFd descriptor = {};

    [[nodiscard]] int get() const { return descriptor.get(); }
};

// Opens the folder on the file system that is mounted at this moment. An open folder prevents that
// the card is unmounted. Returns AGENT_OK; AGENT_NO_CARD when the folder is on a file system of
// `notOn`; AGENT_STORAGE when it does not exist, when its path contains a symbolic link, or when
// others can write to it or to one of its parent folders.
AgentStatus open_folder(const PackageFolder& place, OpenFolder& folder);

// Creates missing folders of the path with mode 700, except on a file system of `notOn`, and opens
// the folder. Returns the codes of open_folder().
AgentStatus make_folder(const PackageFolder& place, OpenFolder& folder);

// Reads the status of an entry of the folder without following a link. Returns whether it exists.
bool find_entry(const OpenFolder& folder, const std::string& name, struct stat& status);

// Removes the entry with this name: a file, or a folder with its content. A folder is removed only
// if its content is at most eight levels deep and on the same file system. Returns AGENT_OK, also
// when the entry does not exist, or AGENT_STORAGE.
AgentStatus remove_entry(const OpenFolder& folder, const std::string& name);

// Writes a file in the folder as store_file() does. A folder with this name is removed.
AgentStatus store_in_folder(const OpenFolder& folder, const std::string& name,
                            std::string_view content);

// Flushes the folder's entries: files that were created, renamed or removed.
AgentStatus flush_folder(const OpenFolder& folder);

// Returns the first directory, from this folder up to the root, that others can write to: all
// users, or a group that is neither root's nor the caller's. A directory with the sticky bit is
// safe, because users can replace only their own entries in it. Returns "" when all are safe, and
// for a folder that does not exist.
std::string folder_open_to_others(const std::string& folder);

// Whether the two folders are the same or one contains the other. Both the paths (absolute, without
// "." or "..", ending in "/") and the existing directories are compared, because a mount can give
// one directory two paths. Symbolic links are followed in `stateFolder` only; a package folder
// whose path contains a link is never used.
bool folders_overlap(const std::string& packageFolder, const std::string& stateFolder);

#endif  // AGENT_FOLDER_H
