// Small files that survive a power cut at any moment.
#ifndef AGENT_STORED_FILE_H
#define AGENT_STORED_FILE_H

#include <string>
#include <string_view>

#include "agent/agent_result.h"

// "cannot WHAT PATH: " and the reason in errno: AGENT_MEDIUM.
AgentStatus medium_fault(const char* what, const std::string& path);

// What stands beside a file while it is replaced.
std::string fresh_path(const std::string& path);

// Puts `content` into the file: writes beside it (fresh_path()), flushes, renames, flushes the
// folder. Whoever opens PATH finds the old content or the new one, whole. Mode 644. Blocks for the
// medium. Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus store_file(const std::string& path, std::string_view content);

// Makes a folder, whose path ends in "/", of mode 700 and those above it that are missing. A link
// in its place is none. Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus make_folder(const std::string& path);

// Removes a file, which may be missing, and flushes the folder. Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus remove_stored_file(const std::string& path);

// Flushes names that were made, renamed or removed in the folder of this path.
AgentStatus flush_folder_of(const std::string& path);

#endif  // AGENT_STORED_FILE_H
