// The answer of whoever is asked on the camera: `consent.json` in the state folder.
#ifndef AGENT_CONSENT_H
#define AGENT_CONSENT_H

#include <string>

#include "agent/agent_result.h"

// Stores an answer for the action of this id, instead of any older one. Returns AGENT_OK or
// AGENT_MEDIUM.
AgentStatus store_consent(const std::string& stateFolder, const std::string& id, bool confirmed);

// Returns whether there is an answer for this action.
bool find_consent(const std::string& stateFolder, const std::string& id, bool& confirmed);

AgentStatus remove_consent(const std::string& stateFolder);

#endif  // AGENT_CONSENT_H
