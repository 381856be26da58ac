// The record of an unfinished download: NAME.part.from, in the folder of NAME.part.
#ifndef AGENT_PART_RECORD_H
#define AGENT_PART_RECORD_H

#include <stdint.h>

#include <string>

#include "agent/agent_result.h"
#include "agent/folder.h"
#include "package/manifest.h"

struct PartRecord {
    uint64_t size = 0;  // bytes of the whole file
    Sha256 sha256 = {};
    std::string entityTag;  // printable, up to 256 characters; empty: the server gave none
    uint64_t kept = 0;      // at least this many bytes are flushed to storage
    bool cameDifferent =
        false;  // the file was received once completely and was not the announced one
};

// Reads the record with this name. Returns false when it does not exist or is not a complete
// record.
bool load_part_record(const OpenFolder& folder, const std::string& name, PartRecord& record);

// Replaces the record. It is flushed to storage when the call returns; a power cut leaves the old
// record or the new one. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus store_part_record(const OpenFolder& folder, const std::string& name,
                              const PartRecord& record);

#endif  // AGENT_PART_RECORD_H
