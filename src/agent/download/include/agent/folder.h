// Folders that the agent's files lie in, and who else can write there.
#ifndef AGENT_FOLDER_H
#define AGENT_FOLDER_H

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

#include "agent/agent_result.h"
#include "base/unique_fd.h"

// Where packages lie: on a card that anybody may have filled.
struct PackageFolder {
    std::string path;  // absolute, without "." and "..", ends in "/"
    // Folders whose file system it must not be on; those that do not exist say nothing. Empty: it
    // may be on any.
    std::vector<std::string> notOn = {};
};

// A folder that is open, for the calls that take a name in it.
struct OpenFolder {
    std::string path = {};  // for messages; ends in "/"
    corvo::UniqueFd descriptor = {};

    [[nodiscard]] int get() const { return descriptor.get(); }
};

// Opens the folder, as it is then. Whoever has it open keeps the card from being unmounted. Returns
// AGENT_OK; AGENT_NO_CARD when it would be on a file system where it must not be; AGENT_MEDIUM when
// it is not there, is reached by a symbolic link, or others can write to it or to a folder on the
// way to it.
AgentStatus open_folder(const PackageFolder& place, OpenFolder& folder);

// The same; makes what is missing, of mode 700, but nothing where it must not be.
AgentStatus make_folder(const PackageFolder& place, OpenFolder& folder);

// What the folder has under a name, without following a link. Returns whether there is anything.
bool find_entry(const OpenFolder& folder, const std::string& name, struct stat& status);

// Removes what has this name: a file, or a folder with what is in it, to a depth that nothing of
// this program's reaches and without leaving the file system. Returns AGENT_OK, also when nothing
// has it, or AGENT_MEDIUM.
AgentStatus remove_entry(const OpenFolder& folder, const std::string& name);

// As store_file() does, for a name in the folder. What is no file under that name is removed.
AgentStatus store_in_folder(const OpenFolder& folder, const std::string& name,
                            std::string_view content);

// Flushes names that were made, renamed or removed.
AgentStatus flush_folder(const OpenFolder& folder);

// The first directory, from this folder up to the root, that others can write to: its mode lets
// everybody, or a group that is neither root's nor the caller's own. One with the sticky bit lets
// nobody replace what is another's, and counts as safe. Empty when there is none, and for a folder
// that does not exist.
std::string folder_open_to_others(const std::string& folder);

// Whether one of two folders is the other one or lies in it, by their paths (absolute, without "."
// or "..", ending in "/") or by what exists of them: a mount can give one folder two names. Links
// are followed in `stateFolder` alone; a package folder that is reached by one is never used.
bool folders_overlap(const std::string& packageFolder, const std::string& stateFolder);

#endif  // AGENT_FOLDER_H
