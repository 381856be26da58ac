// The agent's life: polls, and sleep between them.
#ifndef AGENT_LOOP_H
#define AGENT_LOOP_H

#include "agent/agent_result.h"
#include "agent/settings.h"
#include "agent/sleep.h"
#include "package/certificates.h"

enum AgentExit : int {
    AGENT_EXIT_OK = 0,            // or there was nothing to do
    AGENT_EXIT_FAILED = 1,        // an action failed, or the camera's medium did
    AGENT_EXIT_WRONG_USE = 64,    // as every wrong argument
    AGENT_EXIT_UNREACHABLE = 69,  // EX_UNAVAILABLE of sysexits.h: the server could not be reached
    AGENT_EXIT_REFUSED = 77,      // EX_NOPERM: the server refuses this camera
};

// Polls for ever, until SIGTERM or SIGINT; SIGHUP asks for a poll at once. Only one agent at a time
// works on a state folder. With nothing in hand it sleeps outside of the program, and so does not
// return when it has slept. Returns the exit status.
int run_agent(const AgentSettings& settings, Keyring keyring, AgentProcess& process);

// Polls once and goes on with what follows from it. Returns the exit status.
int run_once(const AgentSettings& settings, Keyring keyring);

// Tells the server what runs on this camera, and no more. Returns the exit status.
int report(const AgentSettings& settings, Keyring keyring);

// Milliseconds to the next poll. After trouble, `failures` in a row without a new byte of a file
// between them, the time grows up to an hour, and is not below what the server asked for; `random`
// is any number, so that no fleet polls in step.
uint32_t delay_ms(uint32_t sleepS, uint32_t failures, uint32_t retryAfterS, uint32_t random);

#endif  // AGENT_LOOP_H
