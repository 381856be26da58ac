// Runs one shell command under a time limit, as the system-call daemon does for its clients.
#ifndef COMMAND_RUNNER_COMMAND_RUNNER_H
#define COMMAND_RUNNER_COMMAND_RUNNER_H

#include <stddef.h>

#include <span>

struct CommandResult {
    bool started;         // false: a process, pipe or thread could not be created; the rest is 0
    bool killed;          // the command was killed at the time limit
    int status;           // exit status, or 128 plus the number of the signal that ended it
    size_t outputLength;  // bytes written to output
};

// Runs `/bin/sh -c command` in a new process group. Its standard input is empty; it inherits no
// other descriptors than the standard ones, and no blocked signals. Blocks until the shell ends,
// but does not wait for background processes of the command. After limitMs milliseconds the whole
// group is killed. If `output` is not empty, it receives the command's standard output, and bytes
// that do not fit are discarded; otherwise the command writes to this process's standard output.
// Thread-safe.
CommandResult run_command(const char* command, int limitMs, std::span<char> output);

// Limits the remaining time of every running and every later command to this many milliseconds.
// Called when the process is about to end. Async-signal-safe.
void stop_commands(int graceMs);

#endif  // COMMAND_RUNNER_COMMAND_RUNNER_H
