// The file with the secret token by which a camera authenticates itself to the server. The file may
// be replaced while the agent runs.
#ifndef AGENT_TOKEN_H
#define AGENT_TOKEN_H

#include <string>

#include "agent/agent_result.h"

// Reads the token: one word in a file of at most 4096 bytes, to which group and others have no
// access. Returns AGENT_OK, or AGENT_MALFORMED with a line that names the file.
AgentStatus read_token(const std::string& path, std::string& token);

#endif  // AGENT_TOKEN_H
