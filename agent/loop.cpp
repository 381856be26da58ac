#include "agent/loop.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include "agent/procedure.h"
#include "agent/status.h"
#include "agent/stored_file.h"
#include "base/ignore_result.h"
#include "base/unique_fd.h"
#include "error_line.h"

namespace {

constexpr char LOCK_FILE[] = "lock";
constexpr mode_t LOCK_MODE = 0600;
constexpr uint32_t SLEEP_UNKNOWN_S = 300;
constexpr uint32_t FIRST_RETRY_S = 5;
constexpr uint32_t LONGEST_RETRY_S = 3600;
constexpr uint32_t DOUBLINGS_MAX = 10;
constexpr uint32_t MS_PER_S = 1000;

std::atomic<bool> g_stop;
int g_wake = -1;  // an eventfd(2) that ends the sleep

void wake(int signal) {
    const int error = errno;
    if (signal != SIGHUP) {
        g_stop = true;
    }
    const uint64_t one = 1;
    corvo::ignore_result(write(g_wake, &one, sizeof(one)));
    errno = error;
}

void catch_signals() {
    struct sigaction action = {};
    action.sa_handler = wake;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaction(signal, &action, nullptr);
    }
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

// One call, and no wake-up before its end but for a signal.
void sleep_for(uint32_t milliseconds) {
    pollfd woken = {.fd = g_wake, .events = POLLIN, .revents = 0};
    if (poll(&woken, 1, static_cast<int>(milliseconds)) > 0) {
        uint64_t count = 0;
        corvo::ignore_result(read(g_wake, &count, sizeof(count)));
    }
}

uint32_t random_number() {
    uint32_t number = 0;
    corvo::ignore_result(getrandom(&number, sizeof(number), GRND_NONBLOCK));
    return number;
}

// One line when something is wrong, one when it is well again, whatever lies between.
void report_trouble(const AgentStatus& status, std::string& said) {
    const std::string text = status.result == AGENT_STOPPED ? "" : status.text;
    if (text != said) {
        print_error(AGENT, text.empty() ? "well again" : text);
        said = text;
    }
}

int exit_status(const AgentStatus& status, bool actionFailed) {
    switch (status.result) {
        case AGENT_UNREACHABLE:
            return AGENT_EXIT_UNREACHABLE;
        case AGENT_REFUSED:
            return AGENT_EXIT_REFUSED;
        case AGENT_OK:
        case AGENT_STOPPED:
            return actionFailed ? AGENT_EXIT_FAILED : AGENT_EXIT_OK;
        default:
            return AGENT_EXIT_FAILED;
    }
}

// Everything that both ways to run need. Returns an exit status when it is not there.
int start(Agent& agent, corvo::UniqueFd& lock) {
    AgentStatus status = make_folder(agent.settings.stateFolder);
    if (status.ok()) {
        lock.reset(open((agent.settings.stateFolder + LOCK_FILE).c_str(),
                        O_RDWR | O_CREAT | O_CLOEXEC, LOCK_MODE));
        if (!lock.valid() || flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
            status = agent_fault(
                AGENT_MEDIUM,
                errno == EWOULDBLOCK
                    ? "another agent works on " + agent.settings.stateFolder
                    : "cannot lock " + agent.settings.stateFolder + ": " + strerror(errno));
        }
    }
    if (status.ok()) {
        status = agent_start(agent);
    }
    if (!status.ok()) {
        print_error(AGENT, status.text);
        return AGENT_EXIT_FAILED;
    }
    return AGENT_EXIT_OK;
}

}  // namespace

uint32_t delay_ms(uint32_t sleepS, uint32_t failures, uint32_t retryAfterS, uint32_t random) {
    const uint32_t interval = sleepS == 0 ? SLEEP_UNKNOWN_S : sleepS;
    if (failures == 0) {
        // Nine to eleven tenths of the interval.
        return interval * 900 + random % (interval * 200 + 1);
    }
    const uint32_t longest = std::max(LONGEST_RETRY_S, interval);
    const uint32_t grown = FIRST_RETRY_S << std::min(failures - 1, DOUBLINGS_MAX);
    const uint32_t chosen = std::min(grown, longest);
    const uint32_t delay = chosen * 500 + random % (chosen * 1000 + 1);
    return std::max(delay, retryAfterS * MS_PER_S);
}

int run_agent(const AgentSettings& settings, Keyring keyring) {
    const corvo::UniqueFd wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    g_wake = wakeUp.get();
    catch_signals();
    Agent agent(settings, std::move(keyring), g_stop);
    corvo::UniqueFd lock;
    const int started = start(agent, lock);
    if (started != AGENT_EXIT_OK) {
        return started;
    }
    std::string said;
    uint32_t failures = 0;
    while (!g_stop) {
        const AgentStatus status = agent_poll(agent);
        report_trouble(status, said);
        publish_status(agent, status);
        failures = status.ok() ? 0 : failures + 1;
        if (!g_stop) {
            sleep_for(delay_ms(agent.sleepS, failures, status.retryAfterS, random_number()));
        }
    }
    return AGENT_EXIT_OK;
}

int run_once(const AgentSettings& settings, Keyring keyring) {
    catch_signals();
    Agent agent(settings, std::move(keyring), g_stop);
    corvo::UniqueFd lock;
    const int started = start(agent, lock);
    if (started != AGENT_EXIT_OK) {
        return started;
    }
    const AgentStatus status = agent_poll(agent);
    publish_status(agent, status);
    if (!status.ok()) {
        print_error(AGENT, status.text);
    } else if (!agent.waitingFor.empty()) {
        printf("action %s waits for %s\n", agent.waitingId.c_str(), agent.waitingFor.c_str());
    }
    return exit_status(status, agent.lastFailed);
}

int report(const AgentSettings& settings, Keyring keyring) {
    catch_signals();
    Agent agent(settings, std::move(keyring), g_stop);
    const AgentStatus status = agent_report(agent);
    if (!status.ok()) {
        print_error(AGENT, status.text);
    }
    return exit_status(status, false);
}
