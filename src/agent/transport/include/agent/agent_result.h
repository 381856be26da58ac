// What a procedure of the agent says when it ends: how, and in one line why.
#ifndef AGENT_AGENT_RESULT_H
#define AGENT_AGENT_RESULT_H

#include <stdint.h>

#include <string>
#include <utility>

enum AgentResult : int32_t {
    AGENT_OK = 0,
    AGENT_UNREACHABLE = 1,  // network, TLS, proxy (407), 429 or 5xx: the same may work later
    AGENT_REFUSED = 2,      // 401 or 403: the server refuses this camera
    AGENT_GONE = 3,         // 404 or 410: what was asked for is not there (any more)
    AGENT_MALFORMED = 4,    // another refusal (4xx), or an answer that is not what it must be
    AGENT_DIFFERENT = 5,    // the bytes that came are not those that were announced
    AGENT_MEDIUM = 6,       // a file of this camera: not readable, not writable, no room
    AGENT_STOPPED = 7,      // a signal asks the agent to end
    AGENT_NO_CARD = 8,      // nothing is mounted where packages lie
};

struct [[nodiscard]] AgentStatus {
    AgentResult result = AGENT_OK;
    // One line: what was asked for and what came. Text from outside may be in it. Empty when all is
    // well.
    std::string text;
    // Seconds that the server wants to be left alone for ("Retry-After"), at most a day; 0: it does
    // not say.
    uint32_t retryAfterS = 0;

    [[nodiscard]] bool ok() const { return result == AGENT_OK; }
};

inline AgentStatus agent_fault(AgentResult result, std::string text) {
    return {result, std::move(text)};
}

#endif  // AGENT_AGENT_RESULT_H
