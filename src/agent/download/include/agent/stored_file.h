// Reads and replaces small files so that a power cut at any moment leaves a complete file.
#ifndef AGENT_STORED_FILE_H
#define AGENT_STORED_FILE_H

#include <stddef.h>

#include <string>
#include <string_view>

#include "agent/agent_result.h"

// Returns AGENT_STORAGE with the text "cannot WHAT PATH: " and the message for errno.
AgentStatus storage_fault(const char* what, const std::string& path);

// The path of the temporary file while PATH is replaced: "PATH.new".
std::string fresh_path(const std::string& path);

// Reads a file that store_file() has written. Returns AGENT_OK; AGENT_GONE when it does not exist;
// AGENT_MALFORMED when it has more than `limit` bytes or is not a regular file (a folder, a pipe, a
// link), without blocking on it; AGENT_STORAGE when it cannot be read.
AgentStatus load_file(const std::string& path, size_t limit, std::string& content);

// Renames the file or folder at this path to "PATH.bad". An existing file of that name is replaced.
// If a folder blocks it, "PATH.bad2" to "PATH.bad9" are tried. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus put_aside(const std::string& path);

// Replaces the file's content: writes fresh_path(), flushes it, renames it to `path` and flushes
// the folder. A reader always finds the complete old or the complete new content. The mode is 644.
// A folder at either path is renamed by put_aside(). Blocks until storage has written the data.
// Returns AGENT_OK or AGENT_STORAGE.
AgentStatus store_file(const std::string& path, std::string_view content);

// Creates a folder, whose path ends in "/", and its missing parents with mode 700. Fails if the
// path itself is a symbolic link. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus make_folder(const std::string& path);

// Removes a file, which need not exist, and flushes its folder. A folder at this path is renamed by
// put_aside(). Returns AGENT_OK or AGENT_STORAGE.
AgentStatus remove_stored_file(const std::string& path);

// Flushes the folder that contains this path: entries that were created, renamed or removed in it.
AgentStatus flush_folder_of(const std::string& path);

#endif  // AGENT_STORED_FILE_H
