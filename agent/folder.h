// Folders that the agent's files lie in, and who else can write there.
#ifndef AGENT_FOLDER_H
#define AGENT_FOLDER_H

#include <string>

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
