// ACTION_DOWNLOADING: downloads the package of an offer into the agent's folder.
#ifndef AGENT_FETCH_H
#define AGENT_FETCH_H

#include "agent/agent.h"
#include "package/manifest.h"
#include "package/status.h"

// Downloads the missing files. The stage becomes ACTION_WAITING or ACTION_RESULT. Returns AGENT_OK,
// or why the download could not continue; AGENT_GONE: poll the server again.
AgentStatus fetch_package(Agent& agent, const DdiAction& offer);

// Reads the manifest in the agent's folder, verifies its signature and checks that this camera
// accepts the package. `status` becomes PACKAGE_OK or what is wrong. Waits while a partition or a
// file is missing or unreadable. Returns as wait_until() does.
bool accept_manifest(const Agent& agent, Manifest& manifest, PackageStatus& status);

// Reads and verifies all files, except those that this process has verified already and that have
// not been changed since. Returns PACKAGE_OK or what is wrong.
PackageStatus check_content(Agent& agent, const Manifest& manifest);

#endif  // AGENT_FETCH_H
