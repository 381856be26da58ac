// The file with the token that proves to the server who a camera is. It may be rotated while the
// agent runs.
#ifndef AGENT_TOKEN_H
#define AGENT_TOKEN_H

#include <string>

#include "agent/agent_result.h"

// Reads the token: one word of at most 4096 bytes, in a file that nobody but its owner can read.
// Returns AGENT_OK, or AGENT_MALFORMED with a line that names the file.
AgentStatus read_token(const std::string& path, std::string& token);

#endif  // AGENT_TOKEN_H
