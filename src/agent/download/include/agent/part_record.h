// What is known of a file that is being fetched: NAME.part.from, beside NAME.part.
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
    std::string entityTag;       // printable, up to 256 characters; empty: the server gave none
    uint64_t kept = 0;           // so many bytes are on the medium, whatever is known of the rest
    bool cameDifferent = false;  // the whole file has come once already, and was another one
};

// Reads the record of this name. Returns false when there is none, or none that was written here.
bool load_part_record(const OpenFolder& folder, const std::string& name, PartRecord& record);

// Replaces the record, on the medium when the call returns: an interruption leaves the old one or
// the new one. Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus store_part_record(const OpenFolder& folder, const std::string& name,
                              const PartRecord& record);

#endif  // AGENT_PART_RECORD_H
