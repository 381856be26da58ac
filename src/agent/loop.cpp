#include "agent/loop.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <functional>
#include <utility>

#include "agent/camera_state.h"
#include "agent/delay.h"
#include "agent/procedure.h"
#include "agent/publish.h"
#include "agent/stored_file.h"
#include "base/monotonic_clock.h"
#include "cli/error_line.h"

namespace {

constexpr char LOCK_FILE[] = "lock";
constexpr mode_t LOCK_MODE = 0600;
// The server's polling interval in seconds, which is needed before the server is reached.
constexpr char INTERVAL_FILE[] = "polling_interval";
constexpr size_t INTERVAL_SIZE_MAX = 16;  // bytes
constexpr uint32_t INTERVAL_MAX_S = 86400;

constexpr uint32_t MS_PER_S = 1000;
// For a shorter sleep, starting the program again is not worth the saved memory.
constexpr uint32_t SLEEP_OUTSIDE_FROM_MS = 30000;

// Returns a number that differs between cameras. Soon after a start the kernel may have no random
// ones yet, and exactly then a whole fleet may need different ones.
uint32_t random_number(const AgentSettings& settings) {
    uint32_t number = 0;
    if (getrandom(&number, sizeof(number), GRND_NONBLOCK) == sizeof(number)) {
        return number;
    }
    const std::string differs =
        settings.server.controllerId + ' ' + std::to_string(corvo::monotonic_ms());
    return static_cast<uint32_t>(std::hash<std::string>()(differs));
}

// Prints an error when it begins and again when it has ended, not with every poll. `reported` is
// the last error that was printed.
void report_error(const AgentStatus& status, std::string& reported) {
    if (status.result == AGENT_STOPPED || status.text == reported) {
        return;
    }
    print_error(AGENT, status.text.empty() ? "recovered" : status.text);
    reported = status.text;
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

// Whether the descriptor is the file at this path. A lock that was held during a sleep may be that
// of another folder, because the settings may have changed.
bool is_open_file(const corvo::UniqueFd& file, const std::string& path) {
    struct stat open = {}, named = {};
    return file.valid() && fstat(file.get(), &open) == 0 && lstat(path.c_str(), &named) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

AgentStatus lock_state(const std::string& folder, corvo::UniqueFd& lock) {
    AgentStatus status = make_folder(folder);
    if (!status.ok()) {
        return status;
    }
    const std::string others = folder_open_to_others(folder);
    if (!others.empty()) {
        return agent_fault(AGENT_STORAGE, folder + ": others can write to " + others);
    }
    if (!is_open_file(lock, folder + LOCK_FILE)) {
        // O_NOFOLLOW, because this process may be root and the folder may belong to another user.
        lock.reset(open((folder + LOCK_FILE).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                        LOCK_MODE));
    }
    // A lock that is already held by this descriptor stays held.
    if (!lock.valid() || flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        lock.reset();
        return agent_fault(AGENT_STORAGE, error == EWOULDBLOCK
                                              ? "another agent uses " + folder
                                              : "cannot lock " + folder + ": " + strerror(error));
    }
    return {};
}

// Locks and loads the state, for "run" and "once". Returns AGENT_EXIT_OK or the exit status.
int start(Agent& agent, corvo::UniqueFd& lock) {
    AgentStatus status = lock_state(agent.settings.stateFolder, lock);
    if (status.ok()) {
        status = agent_start(agent);
    }
    if (!status.ok()) {
        print_error(AGENT, status.text);
        return AGENT_EXIT_FAILED;
    }
    return AGENT_EXIT_OK;
}

// Called after SIGHUP, which is sent when settings have changed. Of these only the token is read
// again here; the rest is read when the program starts again after a sleep.
void reload_token(Agent& agent) {
    AgentStatus status = agent.server.reload_token();
    if (status.ok()) {
        status = agent.files.reload_token();
    }
    if (!status.ok()) {
        print_error(AGENT, "the old token stays in use: " + status.text);
    }
}

// Returns the stored polling interval; 0 when none was stored, or the file cannot be used.
uint32_t load_interval(const std::string& folder) {
    std::string text;
    uint32_t seconds = 0;
    const bool read = load_file(folder + INTERVAL_FILE, INTERVAL_SIZE_MAX, text).ok();
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), seconds);
    return read && parsed.ec == std::errc() && seconds <= INTERVAL_MAX_S ? seconds : 0;
}

// A failure is ignored, because the interval is only an estimate.
void write_interval(const std::string& folder, uint32_t seconds) {
    (void)store_file(folder + INTERVAL_FILE, std::to_string(seconds) + '\n');
}

// Stores the polling interval if the stored one is no good estimate of it. A server may vary the
// interval with each answer, which must not wear out the flash.
void store_interval(const std::string& folder, uint32_t seconds, uint32_t& stored) {
    if (seconds == 0 || (seconds >= stored / 2 && seconds / 2 <= stored)) {
        return;
    }
    stored = seconds;
    write_interval(folder, seconds);
}

// After a power failure all cameras of a fleet may start in the same second, so that the first poll
// is delayed. A camera that is only switched on for a short time now and then must reach the
// server, too: after each start without a poll the delay is shorter, because half of the interval
// is stored. The next poll stores the whole. What follows from the start itself is not delayed.
void wait_for_first_poll(Agent& agent, uint32_t& stored) {
    const uint64_t uptime = seconds_since_start();
    if (agent.polling.sleepS == 0 || !has_just_started(uptime)) {
        return;
    }
    agent.polling.isDelayed = true;
    (void)agent_continue(agent);  // the poll repeats and reports what fails
    agent.polling.isDelayed = false;
    const uint32_t delay = first_delay_ms(agent.polling.sleepS, uptime, agent_is_idle(agent),
                                          random_number(agent.settings));
    if (delay == 0 || agent.stop) {
        return;
    }
    write_interval(agent.settings.stateFolder, std::max(stored / 2, 1U));
    stored = 0;
    log_action("", "the camera has just started: the first poll follows in " +
                       std::to_string(delay / MS_PER_S) + " s");
    if (sleep_inside(delay) && !agent.stop) {
        reload_token(agent);
    }
}

// Whether the process keeps no state in memory that a sleep outside of the program would lose, such
// as verified files or the number of failures.
bool has_no_volatile_state(const Agent& agent, const AgentStatus& status) {
    return status.ok() && agent_is_idle(agent) && !agent.polling.attributesDue;
}

}  // namespace

int run_agent(const AgentSettings& settings, Keyring keyring, AgentProcess& process) {
    std::atomic<bool>& stop = catch_signals();
    Agent agent(settings, std::move(keyring), stop);
    agent.polling.attributesDue = !process.slept;
    const int started = start(agent, process.lock);
    if (started != AGENT_EXIT_OK) {
        return started;
    }
    uint32_t interval = load_interval(settings.stateFolder);
    agent.polling.sleepS = interval;
    if (!process.slept) {
        wait_for_first_poll(agent, interval);
    }
    std::string reported;
    uint32_t failures = 0;
    while (!stop) {
        agent.polling.progressed = false;
        const AgentStatus status = agent_poll(agent);
        report_error(status, reported);
        publish_status(agent, status);
        store_interval(settings.stateFolder, agent.polling.sleepS, interval);
        // A download that makes progress starts the back-off again, so that it ends even on a
        // connection that often fails.
        failures = status.ok() ? 0 : agent.polling.progressed ? 1 : failures + 1;
        // A trial that is still undecided long after the start may stay so for ever.
        const bool isTrialShort = agent.camera.isOnTrial && has_just_started(seconds_since_start());
        const uint32_t sleepS = status.ok() && isTrialShort ? trial_interval_s(agent.polling.sleepS)
                                                            : agent.polling.sleepS;
        const uint32_t delay = delay_ms(sleepS, failures, status.retryAfterS, agent_is_idle(agent),
                                        random_number(settings));
        if (delay >= SLEEP_OUTSIDE_FROM_MS && has_no_volatile_state(agent, status)) {
            sleep_outside(process, delay);
        }
        if (!stop && sleep_inside(delay) && !stop) {
            reload_token(agent);
        }
    }
    return AGENT_EXIT_OK;
}

int run_once(const AgentSettings& settings, Keyring keyring) {
    Agent agent(settings, std::move(keyring), catch_signals());
    corvo::UniqueFd lock;
    const int started = start(agent, lock);
    if (started != AGENT_EXIT_OK) {
        return started;
    }
    const AgentStatus status = agent_poll(agent);
    publish_status(agent, status);
    if (!status.ok()) {
        print_error(AGENT, status.text);
    } else if (!agent.waiting.reason.empty()) {
        printf("action %s waits for %s\n", agent.waiting.id.c_str(), agent.waiting.reason.c_str());
    }
    return exit_status(status, agent.delivery.lastFailed);
}

int report(const AgentSettings& settings, Keyring keyring) {
    Agent agent(settings, std::move(keyring), catch_signals());
    const AgentStatus status = agent_report(agent);
    if (!status.ok()) {
        print_error(AGENT, status.text);
    }
    return exit_status(status, false);
}
