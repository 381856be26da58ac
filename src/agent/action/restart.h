// The step after a restart of the camera: finds out which system runs.
#ifndef AGENT_RESTART_H
#define AGENT_RESTART_H

#include "agent/agent.h"

// Determines the result of an upgrade after the restart. The stage becomes ACTION_RESULT, or
// ACTION_WAITING when nothing was decided and another request follows; it does not change while the
// agent waits for the card, or while corvo_commit has not decided about the running system. Returns
// AGENT_OK, AGENT_STORAGE or AGENT_STOPPED.
AgentStatus judge_restart(Agent& agent);

// Whether the result is a success that was found before the last restart of the camera. It must not
// be sent then.
bool needs_recheck(const Agent& agent);

// To be called before a result is sent. Of a success that needs it, checks that the new system
// still runs. If not, the result becomes a failure. Nothing changes while corvo_commit has not
// decided about the running system. Returns AGENT_OK, AGENT_STORAGE or AGENT_STOPPED.
AgentStatus recheck_success(Agent& agent);

#endif  // AGENT_RESTART_H
