// One poll of the update server and everything that follows from it: download, check, consent,
// commit, request, restart of the camera, and the result.
#ifndef AGENT_PROCEDURE_H
#define AGENT_PROCEDURE_H

#include "agent/agent.h"
#include "agent/agent_result.h"

// Loads the record of the current action and removes unused files. Returns AGENT_OK, or
// AGENT_STORAGE when the state folder cannot be used or the kernel's boot id cannot be read.
AgentStatus agent_start(Agent& agent);

// Whether no action is pending or waits for consent, no new system was on trial at the last poll,
// and no fallback is to be reported.
bool agent_is_idle(const Agent& agent);

// What agent_poll() does before its first request: judges the restart at the end of an upgrade, or
// continues one that was interrupted. Called before a delayed poll, so that this is not delayed.
// Blocks and returns as agent_poll().
AgentStatus agent_continue(Agent& agent);

// Polls once and continues the current action. Blocks as long as that takes: for a download, and
// after a request for the upgrade, which ends with a restart of the camera. Returns AGENT_OK when
// all requests to the server succeeded; AGENT_UNREACHABLE, AGENT_REFUSED or AGENT_MALFORMED when
// one failed; AGENT_STORAGE or AGENT_STOPPED.
AgentStatus agent_poll(Agent& agent);

// Sends the camera's attributes to the server. Returns the codes of agent_poll().
AgentStatus agent_report(Agent& agent);

#endif  // AGENT_PROCEDURE_H
