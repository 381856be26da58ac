// ACTION_WAITING to ACTION_RESULT: posts the request and follows the upgrade.
#ifndef AGENT_UPGRADE_H
#define AGENT_UPGRADE_H

#include "agent/agent.h"

// ACTION_WAITING: starts the upgrade if it may start now. The stage becomes ACTION_DOWNLOADING
// again when files are missing and no request was posted yet; the card may have been exchanged, or
// mounted over the folder after the download.
AgentStatus start_upgrade(Agent& agent, const DdiAction& offer);

// ACTION_COMMITTED and ACTION_POSTED: finds out what happened to the request. Waits for the restart
// as long as one is possible, and determines the result after the restart. Posts again where
// nothing was decided. Returns AGENT_OK, with one of these stages, ACTION_WAITING or ACTION_RESULT;
// AGENT_STORAGE or AGENT_STOPPED.
AgentStatus follow_upgrade(Agent& agent);

#endif  // AGENT_UPGRADE_H
