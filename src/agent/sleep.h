// The agent's sleep between two polls, and what ends it: SIGHUP, or for good SIGTERM and SIGINT.
#ifndef AGENT_SLEEP_H
#define AGENT_SLEEP_H

#include <stdint.h>

#include <atomic>

#include "base/unique_fd.h"

// What stays through a sleep outside of the program.
struct AgentProcess {
    char** arguments = nullptr;  // main()'s
    corvo::UniqueFd lock;        // of the state folder; not valid: none is held
    bool slept = false;          // the sleeper has started this program
};

// Catches the three signals from now on. The flag says that the agent is to end; commands that run
// then are killed. For one thread, as
// all of this.
std::atomic<bool>& catch_signals();

// Sleeps in this process, in one call and without a wake-up before its end but for a signal.
// Returns whether there was one, since the last sleep or in this one.
bool sleep_inside(uint32_t milliseconds);

// Sleeps as corvo_agent_sleeper, which lies beside the agent: the same process, that holds no more
// than the C library until it starts the agent's program again, with the arguments it had. A signal
// that comes on the way is not lost; when SIGHUP is there already, the sleep is none. All but the
// lock and the standard descriptors is closed, and nothing that is in memory is kept. Returns when
// there is no such program or it cannot be started, or when the agent is to end.
void sleep_outside(const AgentProcess& process, uint32_t milliseconds);

// Looks once, at the program's start, whether the sleeper has started it. What the environment says
// of a sleep of another process is ignored, and so is the descriptor that it names.
AgentProcess wake_up(char** arguments);

#endif  // AGENT_SLEEP_H
