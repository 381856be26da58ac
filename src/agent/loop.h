// The agent's main loop: polls the server and sleeps between two polls.
#ifndef AGENT_LOOP_H
#define AGENT_LOOP_H

#include "agent/settings.h"
#include "agent/sleep.h"
#include "package/certificates.h"

enum AgentExit : int {
    AGENT_EXIT_OK = 0,            // success, or there was nothing to do
    AGENT_EXIT_FAILED = 1,        // an action failed, or a file could not be read or written
    AGENT_EXIT_WRONG_USE = 64,    // EX_USAGE of sysexits.h: wrong argument or setting
    AGENT_EXIT_UNREACHABLE = 69,  // EX_UNAVAILABLE of sysexits.h: the server could not be reached
    AGENT_EXIT_REFUSED = 77,      // EX_NOPERM: the server refuses this camera
};

// Polls until SIGTERM or SIGINT arrives; SIGHUP starts a poll at once. A lock ensures that only one
// agent uses a state folder. Without a pending action it sleeps by sleep_outside(), and so does not
// return when it has slept. Returns the exit status.
int run_agent(const AgentSettings& settings, Keyring keyring, AgentProcess& process);

// Polls once and handles the answer. Returns the exit status.
int run_once(const AgentSettings& settings, Keyring keyring);

// Sends the camera's attributes to the server. Returns the exit status.
int report(const AgentSettings& settings, Keyring keyring);

#endif  // AGENT_LOOP_H
