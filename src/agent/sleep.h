// The agent's sleep between two polls. SIGHUP ends the sleep; SIGTERM and SIGINT end the agent. The
// two constants are shared by the agent and its sleeper, each of which starts the other.
#ifndef AGENT_SLEEP_H
#define AGENT_SLEEP_H

#include <signal.h>
#include <stdint.h>

#include <atomic>

#include "base/unique_fd.h"

constexpr char SLEEPER[] = "corvo_agent_sleeper";

// These signals end the sleep. After SIGHUP the agent polls, after the others it ends. Each program
// blocks them before it starts the other, which waits for them or installs handlers, so that no
// signal is lost in between.
constexpr int WAKING_SIGNALS[] = {SIGTERM, SIGINT, SIGHUP};

// The state that is kept across sleep_outside().
struct AgentProcess {
    char** arguments = nullptr;  // main()'s
    corvo::UniqueFd lock;        // of the state folder; not valid when no lock is held
    bool slept = false;          // this program was started by the sleeper
};

// Installs the handlers of the three signals. Returns the flag that SIGTERM and SIGINT set; they
// also kill running commands. All functions of this header are to be used from one thread only.
std::atomic<bool>& catch_signals();

// Sleeps in this process; only a signal ends the sleep early. Returns whether a signal has arrived
// since the last sleep ended.
bool sleep_inside(uint32_t milliseconds);

// Replaces this program by corvo_agent_sleeper, a small program in the same folder. After the sleep
// that starts the agent again, in the same process and with the same arguments. Signals that arrive
// in between are not lost; after a SIGHUP the sleep ends at once. Only the lock and the standard
// descriptors stay open, and the memory's content is lost. Returns only when the sleeper does not
// exist or cannot be started, or when the agent is stopping.
void sleep_outside(const AgentProcess& process, uint32_t milliseconds);

// To be called once, at the program's start. Finds out whether the sleeper has started the program,
// and takes over the lock. An environment variable that was set in another process is ignored.
AgentProcess wake_up(char** arguments);

#endif  // AGENT_SLEEP_H
