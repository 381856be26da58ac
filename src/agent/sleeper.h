// Constants shared by the agent and its sleeper, each of which starts the other.
#ifndef AGENT_SLEEPER_H
#define AGENT_SLEEPER_H

#include <signal.h>

constexpr char SLEEPER[] = "corvo_agent_sleeper";

// These signals end the sleep. After SIGHUP the agent polls, after the others it ends. Each program
// blocks them before it starts the other, which waits for them or installs handlers, so that no
// signal is lost in between.
constexpr int WAKING_SIGNALS[] = {SIGTERM, SIGINT, SIGHUP};

#endif  // AGENT_SLEEPER_H
