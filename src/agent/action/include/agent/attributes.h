// The attributes of the camera that the server knows and can filter by.
#ifndef AGENT_ATTRIBUTES_H
#define AGENT_ATTRIBUTES_H

#include "agent/ddi.h"
#include "agent/settings.h"

// Returns the settings "attribute", and the version, slot, outcome and modules of the camera.
// Blocks as boot_slot() does.
DdiAttributes camera_attributes(const AgentSettings& settings);

#endif  // AGENT_ATTRIBUTES_H
