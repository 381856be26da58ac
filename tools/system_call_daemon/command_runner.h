// Runs one shell command under a time limit, as the system-call daemon does for its clients.
#ifndef TOOLS_SYSTEM_CALL_DAEMON_COMMAND_RUNNER_H
#define TOOLS_SYSTEM_CALL_DAEMON_COMMAND_RUNNER_H

#include <stddef.h>

#include <span>

struct CommandResult {
    bool started;         // false: no process, pipe or thread could be made; the rest is 0
    bool cut;             // the time limit ended it
    int status;           // exit status, or 128 + the signal's number, as a shell tells it
    size_t outputLength;  // bytes put into output
};

// Runs `/bin/sh -c command` in a process group of its own, with standard input empty, no other
// descriptor of this process and no signal blocked. Blocks until the shell ends; what it leaves
// running in the background is not waited for. After limitMs milliseconds the whole group is
// killed. With a non-empty output the command's standard output goes there, what does not fit is
// dropped; with an empty one it stays this process's. Any number of threads may call at once.
CommandResult run_command(const char* command, int limitMs, std::span<char> output);

// Gives every running and every later command so many milliseconds more. For a process that is to
// end; a signal handler may call it.
void stop_commands(int graceMs);

#endif  // TOOLS_SYSTEM_CALL_DAEMON_COMMAND_RUNNER_H
