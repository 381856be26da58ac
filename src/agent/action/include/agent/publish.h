// What the agent publishes about itself for the commands `status`, `confirm` and `deny`.
#ifndef AGENT_PUBLISH_H
#define AGENT_PUBLISH_H

#include "agent/agent.h"
#include "agent/agent_result.h"

inline constexpr char RUN_FILE[] = "/run/corvo-agent/status.json";

// Writes the last poll, the progress of the download and what the update waits for to RUN_FILE,
// which is in memory, so that polls do not wear the flash. If the agent's user may not create the
// folder, the start script must do it. Without the folder `status` does not show these values.
void publish_status(const Agent& agent, const AgentStatus& lastPoll);

#endif  // AGENT_PUBLISH_H
