// What a person on the camera can see of the agent, and tell it.
#ifndef AGENT_STATUS_H
#define AGENT_STATUS_H

#include "agent/agent_result.h"
#include "agent/procedure.h"
#include "agent/settings.h"

// In memory, so that a poll costs the flash nothing: what the agent did last. In
// "/run/corvo-agent/", which whoever starts the agent makes when its user may not. A folder that is
// not there costs no more than what `status` says of the last poll.
void publish_status(const Agent& agent, const AgentStatus& lastPoll);

// Prints what is in hand, the last poll, the last outcome and what runs. Returns AGENT_OK, or
// AGENT_MEDIUM for a record that cannot be read.
AgentStatus print_status(const AgentSettings& settings, bool json);

// Stores the answer to the update that waits for consent, and wakes the agent. Returns AGENT_OK,
// AGENT_GONE when none waits, or AGENT_MEDIUM.
AgentStatus give_consent(const AgentSettings& settings, bool confirmed);

#endif  // AGENT_STATUS_H
