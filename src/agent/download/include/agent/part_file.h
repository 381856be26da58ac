// NAME.part, the bytes of a file that have come so far, on the medium and in the sums that prove
// them.
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
#include "agent/part_record.h"
#include "base/unique_fd.h"
#include "package/content.h"

struct PartFile {
    const DdiFile& file;         // what is to come
    const PackageFile* content;  // what the manifest says of it; null: nothing beside the digest
    const OpenFolder& folder;
    const std::atomic<bool>& stop;

    corvo::UniqueFd descriptor = {};
    PartRecord record = {};
    uint64_t position = 0;  // bytes that are there and summed up
    Sha256Stream sha256 = {};
    std::optional<ContentCheck> check = {};
};

// The procedures return AGENT_OK, AGENT_MEDIUM, and what stands beside them.

// Sums up a NAME that is there. Removes one that is not what was announced: AGENT_DIFFERENT, as
// when there is none. AGENT_STOPPED.
AgentStatus check_whole_file(PartFile& part);

// Opens NAME.part, made when it is not there, and sums up what of it can be relied on; cuts the
// rest off. Removed and made anew when it is something else, or a file that this user cannot open:
// one of root's. AGENT_STOPPED.
AgentStatus open_part(PartFile& part);

// Forgets what has come so far.
AgentStatus empty_part(PartFile& part);

// The same for bytes that are about to come, under this entity tag.
AgentStatus start_part(PartFile& part, const std::string& entityTag);

// Takes the next bytes, which must not be more than are missing. AGENT_DIFFERENT when the manifest
// says otherwise.
AgentStatus append_part(PartFile& part, std::span<const char> bytes);

// Makes sure of what is there after an interruption, so that not a byte of it is fetched again.
AgentStatus keep_part(PartFile& part);

// Compares the sums when all bytes are there. AGENT_DIFFERENT.
AgentStatus check_sums(PartFile& part);

// Makes NAME.part NAME.
AgentStatus put_in_place(PartFile& part);

// Removes NAME.part and what belongs to it.
void remove_part(const PartFile& part);

#endif  // AGENT_PART_FILE_H
