// What the agent and its sleeper, each of which starts the other, must agree on.
#ifndef AGENT_SLEEPER_H
#define AGENT_SLEEPER_H

#include <signal.h>

constexpr char SLEEPER[] = "corvo_agent_sleeper";

// They end the sleep, SIGHUP for a poll, the others for good. Blocked from before one program
// starts the other until that one waits for them or catches them, so that none is lost on the way.
constexpr int WAKING_SIGNALS[] = {SIGTERM, SIGINT, SIGHUP};

#endif  // AGENT_SLEEPER_H
