// A person's answer, given on the camera, to an update that waits for consent: `consent.json` in
// the state folder.
#ifndef AGENT_CONSENT_H
#define AGENT_CONSENT_H

#include <string>

#include "agent/agent_result.h"

// Stores the answer for the action with this id and replaces an older answer. `offer` is the digest
// over the offered files; the answer is not valid for other files with the same id. Returns
// AGENT_OK or AGENT_STORAGE.
AgentStatus store_consent(const std::string& stateFolder, const std::string& id,
                          const std::string& offer, bool confirmed);

// Reads the answer for this action. Returns AGENT_OK; AGENT_GONE when no answer is stored or it is
// for another action; AGENT_MALFORMED when store_consent() did not write the file; or AGENT_STORAGE
// when it cannot be read.
AgentStatus find_consent(const std::string& stateFolder, const std::string& id,
                         const std::string& offer, bool& confirmed);

// Renames a malformed answer as put_aside() does. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus put_consent_aside(const std::string& stateFolder);

// Returns AGENT_OK or AGENT_STORAGE.
AgentStatus remove_consent(const std::string& stateFolder);

#endif  // AGENT_CONSENT_H
