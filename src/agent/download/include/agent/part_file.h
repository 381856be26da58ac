// NAME.part: the bytes of a file that have been received so far, and the digests over them. Its
// record NAME.part.from is replaced as a whole, so that a power cut leaves the old record or the
// new one.
#ifndef AGENT_PART_FILE_H
#define AGENT_PART_FILE_H

#include <stdint.h>

#include <atomic>
#include <optional>
#include <span>
#include <string>

#include "agent/agent_result.h"
#include "agent/ddi.h"
#include "agent/folder.h"
#include "base/unique_fd.h"
#include "package/content.h"
#include "package/manifest.h"

// The content of NAME.part.from.
struct PartRecord {
    uint64_t size = 0;  // bytes of the whole file
    Sha256 sha256 = {};
    std::string entityTag;  // printable, up to 256 characters; empty: the server gave none
    uint64_t kept = 0;      // at least this many bytes are flushed to storage
    bool cameDifferent =
        false;  // the file was received once completely and was not the announced one
};

struct PartFile {
    const DdiFile& file;         // the file that is downloaded, as the server announced it
    const PackageFile* content;  // its description in the manifest; null: only the digest counts
    const OpenFolder& folder;
    const std::atomic<bool>& stop;

    corvo::UniqueFd descriptor = {};
    PartRecord record = {};
    uint64_t position = 0;  // bytes that are stored and included in the digests
    Sha256Stream sha256 = {};
    std::optional<ContentCheck> check = {};
};

// All functions return AGENT_OK or AGENT_STORAGE, and the further codes that are named with each.

// Reads an existing file NAME and checks its digests. Returns AGENT_DIFFERENT when NAME does not
// exist or is not the announced file; it is removed then. Returns AGENT_STOPPED when the agent is
// stopping.
AgentStatus check_whole_file(PartFile& part);

// Opens NAME.part, which is created if it does not exist. Includes its reliable bytes in the
// digests and truncates the rest. If NAME.part is not a regular file, or this user cannot open it
// (a file of root), it is removed and created again. Returns AGENT_STOPPED when the agent is
// stopping.
AgentStatus open_part(PartFile& part);

// Opens NAME.part as open_part() does, but without a record and without reading its bytes: `size`
// becomes their number, and `position` is 0. The caller, who can check each of them, adds those
// that are right to the digests with take_stored() and discards the rest with cut_part().
AgentStatus open_unrecorded_part(PartFile& part, uint64_t& size);

// Includes bytes that are stored at `position` already in the digests. Returns AGENT_DIFFERENT when
// they contradict the manifest.
AgentStatus take_stored(PartFile& part, std::span<const char> bytes);

// Discards the bytes after `position`.
AgentStatus cut_part(PartFile& part);

// Discards all bytes received so far.
AgentStatus empty_part(PartFile& part);

// Discards all bytes and records the entity tag of the bytes that will be appended.
AgentStatus start_part(PartFile& part, const std::string& entityTag);

// Appends bytes, at most as many as are missing. Returns AGENT_DIFFERENT when they contradict the
// manifest.
AgentStatus append_part(PartFile& part, std::span<const char> bytes);

// Flushes and records all stored bytes after an interruption, so that none is downloaded again.
AgentStatus keep_part(PartFile& part);

// Flushes all stored bytes.
AgentStatus flush_part(PartFile& part);

// Compares the digests once all bytes are stored. Returns AGENT_DIFFERENT when they differ.
AgentStatus check_sums(PartFile& part);

// Flushes NAME.part and renames it to NAME.
AgentStatus put_in_place(PartFile& part);

// Removes NAME.part and its record.
void remove_part(const PartFile& part);

#endif  // AGENT_PART_FILE_H
