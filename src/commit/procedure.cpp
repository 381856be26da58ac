#include "commit/procedure.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <mutex>

namespace {

constexpr int64_t MS_PER_S = 1000;
// A command that starts just before the deadline gets this time.
constexpr int64_t LIMIT_MIN_MS = 1000;
// A start that ends in an orderly way uses up at least this much of the deadline. Otherwise the
// trial of a system that restarts itself again and again would never end.
constexpr uint32_t ELAPSED_MIN_S = 5;

// The platform's lock as a mutex. Whoever changes the record first reads it under this lock, so
// that no decision of another instance of the program is overwritten.
class InstanceLock {
  public:
    explicit InstanceLock(const CommitPlatform& platform) : platform_(platform) {}
    void lock() { platform_.lock(platform_.context); }
    void unlock() { platform_.unlock(platform_.context); }

  private:
    const CommitPlatform& platform_;
};

void report(const CommitPlatform& platform, const std::string& line) {
    platform.log(platform.context, line);
}

void set_reason(TrialRecord& record, const std::string& reason) {
    snprintf(record.reason, sizeof(record.reason), "%s", reason.c_str());
}

std::string slot_name(char slot) {
    return std::string("slot ") + slot;
}

bool keep(const CommitPlatform& platform, const TrialRecord& record) {
    if (store_record(platform.records, record) == RECORD_OK) {
        return true;
    }
    report(platform, "the record cannot be stored");
    return false;
}

// Stores the values in one step, unless they are there already, and reads them back.
bool keep_environment(const CommitPlatform& platform, std::span<const BootValue> values) {
    const auto isKept = [&] {
        BootEnvironment environment;
        return platform.read_environment(platform.context, environment) &&
               has_values(environment, values);
    };
    if (isKept()) {
        return true;
    }
    platform.store_environment(platform.context, values);
    if (isKept()) {
        return true;
    }
    report(platform, "the boot environment does not keep what is stored");
    return false;
}

bool is_flagged(const Observation& seen) {
    return strcmp(seen.environment.values[UPGRADE_AVAILABLE], "1") == 0;
}

// --- commit ------------------------------------------------------------------------------------

// The environment is changed before the record says "committed": after a power cut in between, the
// boot loader must not count the starts of a system that was reported as committed.
bool commit(const CommitPlatform& platform, TrialRecord record) {
    record.phase = Phase::COMMITTING;
    if (!keep(platform, record)) {
        return false;
    }
    const BootValue values[] = {{UPGRADE_AVAILABLE, "0"}, {BOOTCOUNT, "0"}};
    if (!keep_environment(platform, values)) {
        return false;
    }
    record.phase = Phase::COMMITTED;
    record.committed = record.trial;
    record.reason[0] = '\0';
    // If this fails the next start completes it: the boot loader counts no longer.
    keep(platform, record);
    report(platform, slot_name(record.committed) + " is committed");
    return true;
}

// --- rollback ----------------------------------------------------------------------------------

// Returns whether the other slot is selected and the restart is requested.
bool roll_back(const CommitPlatform& platform, TrialRecord record) {
    const std::string failed(1, record.trial);
    const std::string good(1, other_slot(record.trial));
    const std::string why = slot_name(record.trial) + ": " + record.reason;
    record.phase = Phase::ROLLING_BACK;
    // After the last restart the environment is still stored: attempts that were interrupted count
    // too, and then the next start leads back, whoever requests it.
    const bool isExhausted = record.restarts >= ROLLBACK_RESTARTS_MAX;
    if (!isExhausted) {
        ++record.restarts;
        // Goes on if the record cannot be stored: rolled_back is then the trace of the rollback,
        // and the changed slot ends it.
        keep(platform, record);
    }
    const BootValue values[] = {{BOOTSYSTEM, good.c_str()},
                                {UPGRADE_AVAILABLE, "0"},
                                {BOOTCOUNT, "0"},
                                {ROLLED_BACK, failed.c_str()}};
    if (!keep_environment(platform, values)) {
        report(platform, why + "; not rolled back");
        return false;
    }
    if (isExhausted) {
        report(platform, why + "; still running after " + std::to_string(record.restarts) +
                             " attempts to go back to slot " + good);
        return false;
    }
    report(platform, why + "; going back to slot " + good);
    if (!platform.restart(platform.context)) {
        report(platform, "the restart cannot be requested");
        return false;
    }
    return true;
}

bool roll_back(const CommitPlatform& platform, TrialRecord record, const std::string& reason) {
    set_reason(record, reason);
    return roll_back(platform, record);
}

// --- trial -------------------------------------------------------------------------------------

// The record of the running system's trial: the present one, or a new one if that is about
// something else.
TrialRecord trial_record(const Observation& seen) {
    TrialRecord record = seen.record;
    const bool isOfThisTrial = record.trial == seen.running && record.phase != Phase::NONE &&
                               record.phase != Phase::COMMITTED;
    if (!isOfThisTrial) {
        record = {};
    }
    record.trial = seen.running;
    record.committed = other_slot(seen.running);
    record.phase = Phase::TRIAL;
    return record;
}

bool is_on_trial(const State& state) {
    return state.action == Action::TRY || state.action == Action::TRY_OR_ADOPT;
}

// A trial that is under way: its record, and whether this start is counted in it.
struct Trial {
    TrialRecord record;
    bool isCounted;
    int64_t begunMs;
};

// Stores the count before anything else, so that a system that panics in its trial is counted. The
// program may run twice in one start, which is counted once.
bool count_start(const CommitPlatform& platform, TrialRecord& record) {
    TrialRecord counted = record;
    platform.boot_id(platform.context, counted.boot);
    if (counted.boot[0] != '\0' && strcmp(counted.boot, record.boot) == 0) {
        return true;
    }
    ++counted.starts;
    if (!keep(platform, counted)) {
        return false;
    }
    record = counted;
    return true;
}

// Returns whether a person has committed or rolled back in the meantime.
bool is_decided(const CommitPlatform& platform, const Trial& trial) {
    TrialRecord record;
    return trial.isCounted && load_record(platform.records, record) == RECORD_OK &&
           (record.phase == Phase::COMMITTED || record.phase == Phase::ROLLING_BACK);
}

// The camera stops in an orderly way: this start is not a failure, neither here nor for the boot
// loader.
int end_in_order(const CommitPlatform& platform, Trial& trial) {
    InstanceLock lock(platform);
    const std::scoped_lock guard(lock);
    if (is_decided(platform, trial)) {
        return COMMIT_EXIT_OK;
    }
    const int64_t tookMs = platform.monotonic_ms(platform.context) - trial.begunMs;
    TrialRecord& record = trial.record;
    record.elapsedS += std::max(ELAPSED_MIN_S, static_cast<uint32_t>(tookMs / MS_PER_S));
    if (trial.isCounted && record.starts > 0) {
        --record.starts;
        record.boot[0] = '\0';
    }
    const bool isKept = keep(platform, record);
    const Observation seen = observe(platform);
    const long count = strtol(seen.environment.values[BOOTCOUNT], nullptr, 10);
    if (state_of(seen).action == Action::TRY && is_flagged(seen) && count > 0) {
        const std::string before = std::to_string(count - 1);
        const BootValue value = {BOOTCOUNT, before.c_str()};
        keep_environment(platform, {&value, 1});
    }
    report(platform, "stopped during the trial; this start is not counted");
    return isKept ? COMMIT_EXIT_OK : COMMIT_EXIT_FAILED;
}

int check_until_decided(const CommitPlatform& platform, const TrialSettings& settings,
                        Trial& trial) {
    TrialRecord& record = trial.record;
    InstanceLock lock(platform);
    const int64_t deadlineS =
        int64_t{settings.deadlineS} - std::min(record.elapsedS, settings.deadlineS);
    const int64_t deadlineMs = trial.begunMs + deadlineS * MS_PER_S;
    for (;;) {
        std::string reason = "the starts of the trial cannot be recorded";
        if (!trial.isCounted) {
            const std::scoped_lock guard(lock);
            trial.isCounted = count_start(platform, record);
        }
        const int64_t leftMs = deadlineMs - platform.monotonic_ms(platform.context);
        const bool isHealthy =
            trial.isCounted &&
            platform.check_health(platform.context, std::max(leftMs, LIMIT_MIN_MS), reason);
        const bool isLate = platform.monotonic_ms(platform.context) >= deadlineMs;
        if (!isHealthy && !isLate && !platform.wait(platform.context, 0)) {
            return end_in_order(platform, trial);
        }
        {
            const std::scoped_lock guard(lock);
            if (is_decided(platform, trial) || (isHealthy && commit(platform, record))) {
                return COMMIT_EXIT_OK;
            }
            if (isLate) {
                roll_back(platform, record,
                          isHealthy ? "healthy, but the commit cannot be stored" : reason);
                return COMMIT_EXIT_FAILED;
            }
        }
        const int64_t pauseMs = std::min(settings.intervalS * MS_PER_S,
                                         deadlineMs - platform.monotonic_ms(platform.context));
        if (!platform.wait(platform.context, std::max<int64_t>(pauseMs, 0))) {
            return end_in_order(platform, trial);
        }
    }
}

// `guard` holds the lock until this start is counted.
int try_system(const CommitPlatform& platform, const TrialSettings& settings,
               const Observation& seen, std::unique_lock<InstanceLock>& guard) {
    Trial trial = {.record = trial_record(seen),
                   .isCounted = false,
                   .begunMs = platform.monotonic_ms(platform.context)};
    trial.isCounted = count_start(platform, trial.record);
    if (!trial.isCounted && !is_flagged(seen)) {
        // A system that restarts before its check would be started for ever.
        roll_back(platform, trial.record, "nobody can count the starts of the trial");
        return COMMIT_EXIT_FAILED;
    }
    if (trial.record.starts > settings.startLimit) {
        roll_back(platform, trial.record,
                  "not confirmed in " + std::to_string(trial.record.starts - 1) + " starts");
        return COMMIT_EXIT_FAILED;
    }
    report(platform,
           slot_name(seen.running) + " is on trial, start " + std::to_string(trial.record.starts));
    guard.unlock();
    return check_until_decided(platform, settings, trial);
}

// --- the end of a trial ------------------------------------------------------------------------

int finish(const CommitPlatform& platform, const Observation& seen, TrialRecord record) {
    record.phase = Phase::COMMITTED;
    record.committed = seen.running;
    // The trial has ended. With these variables the boot loader no longer counts the starts.
    const std::string slot(1, seen.running);
    const BootValue values[] = {
        {BOOTSYSTEM, slot.c_str()}, {UPGRADE_AVAILABLE, "0"}, {BOOTCOUNT, "0"}};
    if (is_flagged(seen) && !keep_environment(platform, values)) {
        return COMMIT_EXIT_FAILED;
    }
    if (!keep(platform, record)) {
        return COMMIT_EXIT_FAILED;
    }
    report(platform, record.reason[0] == '\0'
                         ? slot_name(seen.running) + " is committed"
                         : slot_name(record.trial) + " was given up: " + record.reason);
    return COMMIT_EXIT_OK;
}

int finish_failed(const CommitPlatform& platform, const Observation& seen,
                  const std::string& reason) {
    TrialRecord record = seen.record;
    record.trial = other_slot(seen.running);
    set_reason(record, reason);
    return finish(platform, seen, record);
}

std::string fallback_reason(const Observation& seen) {
    const TrialRecord& record = seen.record;
    const bool isOfThisTrial =
        record.trial == other_slot(seen.running) && record.phase != Phase::COMMITTED;
    if (!isOfThisTrial) {
        return "the boot loader returned: the system was not confirmed";
    }
    return record.starts == 0 ? "the boot loader returned: the system never began its check"
                              : "the boot loader returned: not confirmed, " +
                                    std::to_string(record.starts) + " starts began a check";
}

std::string lost_reason(const Observation& seen) {
    if (is_flagged(seen)) {
        return "the boot loader did not start the slot that is selected";
    }
    if (seen.record.phase == Phase::ARMED) {
        return "the slot switch did not take effect";
    }
    // The trial was started with this variable, so somebody has removed it.
    return seen.environment.values[UPGRADE_AVAILABLE][0] == '\0'
               ? "the boot environment was reset to its default values"
               : "the boot environment no longer selects the system";
}

int act(const CommitPlatform& platform, const TrialSettings& settings, const Observation& seen,
        const State& state, std::unique_lock<InstanceLock>& guard) {
    switch (state.action) {
        case Action::REPORT:
            report(platform, state.meaning);
            return COMMIT_EXIT_FAILED;
        case Action::NOTHING:
            return COMMIT_EXIT_OK;
        case Action::ADOPT:
            return finish(platform, seen, {});
        case Action::TRY_OR_ADOPT:
            report(platform, state.meaning);
            return settings.adoptSwitched ? finish(platform, seen, {})
                                          : try_system(platform, settings, seen, guard);
        case Action::TRY:
            return try_system(platform, settings, seen, guard);
        case Action::FINISH_COMMIT:
        case Action::FINISH_ROLLBACK:
            return finish(platform, seen, seen.record);
        case Action::ROLL_BACK:
            roll_back(platform, seen.record);
            return COMMIT_EXIT_FAILED;
        case Action::RECORD_FALLBACK:
            return finish_failed(platform, seen, fallback_reason(seen));
        case Action::RECORD_LOST:
            return finish_failed(platform, seen, lost_reason(seen));
    }
    return COMMIT_EXIT_FAILED;
}

}  // namespace

bool has_values(const BootEnvironment& environment, std::span<const BootValue> values) {
    return std::ranges::all_of(values, [&environment](const BootValue& wanted) {
        return strcmp(environment.values[wanted.variable], wanted.value) == 0;
    });
}

Observation observe(const CommitPlatform& platform) {
    Observation seen;
    seen.running = platform.running_slot(platform.context);
    seen.isReadable = platform.read_environment(platform.context, seen.environment);
    if (!seen.isReadable) {
        seen.environment = {};
    }
    load_record(platform.records, seen.record);
    char boot[BOOT_ID_SIZE] = {};
    platform.boot_id(platform.context, boot);
    seen.isRestarted = strcmp(boot, seen.record.boot) != 0;
    return seen;
}

int decide_at_boot(const CommitPlatform& platform, const TrialSettings& settings) {
    InstanceLock lock(platform);
    std::unique_lock guard(lock);
    const Observation seen = observe(platform);
    return act(platform, settings, seen, state_of(seen), guard);
}

int commit_now(const CommitPlatform& platform) {
    InstanceLock lock(platform);
    const std::scoped_lock guard(lock);
    const Observation seen = observe(platform);
    const State& state = state_of(seen);
    if (is_on_trial(state)) {
        return commit(platform, trial_record(seen)) ? COMMIT_EXIT_OK : COMMIT_EXIT_FAILED;
    }
    if (state.action == Action::NOTHING && seen.record.phase == Phase::COMMITTED) {
        report(platform, slot_name(seen.running) + " is committed already");
        return COMMIT_EXIT_OK;
    }
    report(platform, std::string("nothing can be committed: ") + state.meaning);
    return COMMIT_EXIT_FAILED;
}

int roll_back_now(const CommitPlatform& platform) {
    InstanceLock lock(platform);
    const std::scoped_lock guard(lock);
    const Observation seen = observe(platform);
    const State& state = state_of(seen);
    bool isDone = false;
    if (is_on_trial(state)) {
        isDone = roll_back(platform, trial_record(seen), "rolled back by a person");
    } else if (state.action == Action::ROLL_BACK) {
        isDone = roll_back(platform, seen.record);
    } else {
        report(platform, std::string("nothing can be rolled back: ") + state.meaning);
    }
    return isDone ? COMMIT_EXIT_OK : COMMIT_EXIT_FAILED;
}

int record_arming(const CommitPlatform& platform, char slot) {
    InstanceLock lock(platform);
    const std::scoped_lock guard(lock);
    const Observation seen = observe(platform);
    if (seen.running == slot) {
        report(platform, slot_name(slot) + " is running and cannot be tried");
        return COMMIT_EXIT_REFUSED;
    }
    if (state_of(seen).action == Action::TRY) {
        report(platform, slot_name(seen.running) + " is still on trial");
        return COMMIT_EXIT_REFUSED;
    }
    TrialRecord record = {};
    record.phase = Phase::ARMED;
    record.committed = other_slot(slot);
    record.trial = slot;
    platform.boot_id(platform.context, record.boot);
    return keep(platform, record) ? COMMIT_EXIT_OK : COMMIT_EXIT_FAILED;
}
