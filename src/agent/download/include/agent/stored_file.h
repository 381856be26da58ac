// Small files that survive a power cut at any moment.
#ifndef AGENT_STORED_FILE_H
#define AGENT_STORED_FILE_H

#include <stddef.h>

#include <string>
#include <string_view>

#include "agent/agent_result.h"

// "cannot WHAT PATH: " and the reason in errno: AGENT_MEDIUM.
AgentStatus medium_fault(const char* what, const std::string& path);

// What stands beside a file while it is replaced.
std::string fresh_path(const std::string& path);

// Reads a file that store_file() has written. Returns AGENT_OK; AGENT_GONE when there is none;
// AGENT_MALFORMED when it has more than `limit` bytes or is not a file itself (a folder, a pipe, a
// link), which is not waited for; AGENT_MEDIUM when nobody can tell what it holds.
AgentStatus load_file(const std::string& path, size_t limit, std::string& content);

// Renames whatever has this path to the first free one of "PATH.bad", "PATH.bad2" ... "PATH.bad9";
// files with these names are replaced. Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus put_aside(const std::string& path);

// Writes all of it. Returns false with errno set when it could not.
bool write_all(int file, std::string_view content);

// Puts `content` into the file: writes beside it (fresh_path()), flushes, renames, flushes the
// folder. Whoever opens PATH finds the old content or the new one, whole. Mode 644. Folders with
// either name are put aside. Blocks for the medium. Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus store_file(const std::string& path, std::string_view content);

// Makes a folder, whose path ends in "/", of mode 700 and those above it that are missing. A link
// in its place is none. Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus make_folder(const std::string& path);

// Removes a file, which may be missing, and flushes the folder. A folder with its name is put
// aside. Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus remove_stored_file(const std::string& path);

// Flushes names that were made, renamed or removed in the folder of this path.
AgentStatus flush_folder_of(const std::string& path);

#endif  // AGENT_STORED_FILE_H
