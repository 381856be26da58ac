// The commands for a person on the camera: status, confirm and deny.
#ifndef AGENT_STATUS_H
#define AGENT_STATUS_H

#include "agent/agent_result.h"
#include "agent/settings.h"

// Prints the pending action, the last poll, the last result and the running system. Returns
// AGENT_OK, AGENT_STORAGE when a record cannot be read, or AGENT_MALFORMED when an agent has not
// written it.
AgentStatus print_status(const AgentSettings& settings, bool json);

// Stores the answer to the update that waits for consent, and wakes the agent. Returns AGENT_OK,
// AGENT_GONE when no update waits for consent, or AGENT_STORAGE.
AgentStatus give_consent(const AgentSettings& settings, bool confirmed);

#endif  // AGENT_STATUS_H
