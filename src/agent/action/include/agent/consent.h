// The answer of whoever is asked on the camera: `consent.json` in the state folder.
#ifndef AGENT_CONSENT_H
#define AGENT_CONSENT_H

#include <string>

#include "agent/agent_result.h"

// Stores an answer for the action of this id, instead of any older one. `offer` is the digest of
// what it has then: with other files under its id it is another action. Returns AGENT_OK or
// AGENT_MEDIUM.
AgentStatus store_consent(const std::string& stateFolder, const std::string& id,
                          const std::string& offer, bool confirmed);

// Reads the answer for this action. Returns AGENT_OK; AGENT_GONE when there is none, or one for
// another action; AGENT_MALFORMED when what lies there is not what store_consent() writes; or
// AGENT_MEDIUM when nobody can tell.
AgentStatus find_consent(const std::string& stateFolder, const std::string& id,
                         const std::string& offer, bool& confirmed);

// Renames an answer that is malformed, as put_aside() does. Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus put_consent_aside(const std::string& stateFolder);

// Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus remove_consent(const std::string& stateFolder);

#endif  // AGENT_CONSENT_H
