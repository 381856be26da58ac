// Waits for parts of the camera that may not be available yet, soon after its start. Each wait
// takes at most PATIENCE_MS.
#ifndef AGENT_PATIENCE_H
#define AGENT_PATIENCE_H

#include <stdint.h>

#include <functional>

#include "agent/agent.h"
#include "package/status.h"

constexpr uint32_t CHECK_INTERVAL_MS = 500;
// How long to wait for a service that does not run, or for the restart after a service has ended:
// long enough for a camera that starts its services slowly.
constexpr int64_t PATIENCE_MS = 60000;

// Calls `check` until it returns true or the time is over. Returns false when the agent is
// stopping; a failed check has no meaning then.
bool wait_until(const Agent& agent, const std::function<bool()>& check);

// Reads the slot; it is '?' when it stays unknown. Returns as wait_until() does.
bool wait_for_slot(const Agent& agent, char& slot);

// Waits until the manifest exists. The service deletes images but never the manifest, so its
// presence proves that the package's card is mounted. Returns as wait_until() does.
bool wait_for_card(const Agent& agent);

// Whether the result is final. A file, partition or device that is missing or unreadable may appear
// later.
bool is_final(const PackageStatus& status);

#endif  // AGENT_PATIENCE_H
