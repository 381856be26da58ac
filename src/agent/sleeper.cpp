// corvo_agent_sleeper replaces the agent between two polls. The agent needs megabytes of memory for
// libcurl and its libraries; the sleeper needs only the C library.
//
//   corvo_agent_sleeper MILLISECONDS PROGRAM [ARGUMENT...]
//
// Executes the program in the same process after the given time or after SIGHUP. SIGTERM and SIGINT
// end the sleeper with status 0. Open descriptors stay open.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sysexits.h>
#include <time.h>
#include <unistd.h>

#include "agent/sleep.h"
#include "base/signal_set.h"

namespace {

constexpr unsigned long MS_PER_S = 1000;
constexpr unsigned long NS_PER_MS = 1000000;
constexpr time_t RETRY_S = 60;

}  // namespace

int main(int argc, char** argv) {
    char* end = nullptr;
    const unsigned long milliseconds = argc < 3 ? 0 : strtoul(argv[1], &end, 10);
    if (end == nullptr || end == argv[1] || *end != '\0') {
        fprintf(stderr, "%s: only corvo_agent starts this program\n", SLEEPER);
        return EX_USAGE;
    }
    char** const command = argv + 2;
    // The process keeps the agent's name, by which `ps` and give_consent() find it.
    const char* const slash = strrchr(command[0], '/');
    prctl(PR_SET_NAME, slash == nullptr ? command[0] : slash + 1);

    const sigset_t signals = corvo::signal_set(WAKING_SIGNALS);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    timespec time = {.tv_sec = static_cast<time_t>(milliseconds / MS_PER_S),
                     .tv_nsec = static_cast<long>(milliseconds % MS_PER_S * NS_PER_MS)};
    for (bool reported = false;; reported = true) {
        const int signal = sigtimedwait(&signals, nullptr, &time);
        if (signal == SIGTERM || signal == SIGINT) {
            return EXIT_SUCCESS;
        }
        execv(command[0], command);
        // The failure may be temporary: memory is short, or the program's file is being replaced.
        if (!reported) {
            fprintf(stderr, "%s: cannot be started: %s\n", command[0], strerror(errno));
        }
        time = {.tv_sec = RETRY_S, .tv_nsec = 0};
    }
}
