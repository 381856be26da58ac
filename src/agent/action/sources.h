// Opens what may contain chunks of an image on this camera.
#ifndef AGENT_SOURCES_H
#define AGENT_SOURCES_H

#include <string>
#include <vector>

#include "agent/agent.h"
#include "agent/chunk_sources.h"
#include "package/manifest.h"

// Returns the sources for a module: the running copy of its partition, the other copy if the board
// has two, and the files of the setting "delta-source". What cannot be opened is left out. `slot`
// is the slot that runs, or '?'.
std::vector<ChunkSource> open_sources(const Agent& agent, const ManifestModule& module, char slot);

// Returns the path in the state folder of the index of what slot 'A' or 'B' has in the module's
// partition; "" for another slot.
std::string stored_index_path(const Agent& agent, const ManifestModule& module, char slot);

// Returns the other slot, or '?'.
char other_slot(char slot);

#endif  // AGENT_SOURCES_H
