#include "commit/state.h"

#include <string.h>

#include <algorithm>
#include <iterator>

namespace {

constexpr uint8_t ANY = BIT_NO | BIT_YES;
constexpr uint8_t EVERY = 0xff;

constexpr uint8_t bit(Phase phase) {
    return static_cast<uint8_t>(1U << static_cast<unsigned>(phase));
}
constexpr uint8_t NONE = bit(Phase::NONE);
constexpr uint8_t COMMITTED = bit(Phase::COMMITTED);
constexpr uint8_t ARMED = bit(Phase::ARMED);
constexpr uint8_t TRIAL = bit(Phase::TRIAL);
constexpr uint8_t COMMITTING = bit(Phase::COMMITTING);
constexpr uint8_t ROLLING_BACK = bit(Phase::ROLLING_BACK);
constexpr uint8_t TRIED = ARMED | TRIAL | COMMITTING;

// The order matters: the first row that applies is taken.
constexpr State STATES[] = {
    {"unknown", RUNNING_UNKNOWN, ANY, ANY, EVERY, ANY, ANY, Action::REPORT,
     "the running slot cannot be determined"},
    {"unreadable", SELECTED_UNREADABLE, ANY, ANY, EVERY, ANY, ANY, Action::REPORT,
     "the boot environment cannot be read"},
    {"unselected", SELECTED_NONE, ANY, ANY, EVERY, ANY, ANY, Action::REPORT,
     "the boot environment selects neither A nor B"},
    // Also when the environment was stored and only the restart is missing.
    {"rolling-back", SELECTED_RUNNING | SELECTED_OTHER, ANY, ANY, ROLLING_BACK, BIT_YES, ANY,
     Action::ROLL_BACK, "the rollback was interrupted"},
    {"rolled-back", SELECTED_RUNNING, ANY, ANY, ROLLING_BACK, BIT_NO, ANY, Action::FINISH_ROLLBACK,
     "the rollback has arrived"},
    {"armed", SELECTED_OTHER, BIT_YES, ANY, ARMED, BIT_NO, BIT_NO, Action::NOTHING,
     "the other system is started at the next restart"},
    {"ignored", SELECTED_OTHER, BIT_YES, ANY, ARMED, BIT_NO, BIT_YES, Action::RECORD_LOST,
     "the boot loader did not start the slot that is selected"},
    {"mismatch", SELECTED_OTHER, ANY, ANY, EVERY, ANY, ANY, Action::REPORT,
     "the boot environment does not select the running slot"},
    // Whatever is recorded: a record that is lost or of an earlier trial proves nothing about this
    // system.
    {"trial", SELECTED_RUNNING, BIT_YES, ANY, EVERY, ANY, ANY, Action::TRY, "on trial"},
    {"committing", SELECTED_RUNNING, BIT_NO, ANY, COMMITTING, BIT_YES, ANY, Action::FINISH_COMMIT,
     "the commit was interrupted"},
    {"uncounted", SELECTED_RUNNING, BIT_NO, ANY, ARMED | TRIAL, BIT_YES, ANY, Action::TRY,
     "on trial; the boot loader does not count its starts"},
    {"fell-back", SELECTED_RUNNING, BIT_NO, BIT_YES, EVERY, ANY, ANY, Action::RECORD_FALLBACK,
     "the boot loader has returned to this system"},
    {"lost", SELECTED_RUNNING, BIT_NO, BIT_NO, TRIED, BIT_NO, ANY, Action::RECORD_LOST,
     "the other system is not selected any more"},
    {"new", SELECTED_RUNNING, BIT_NO, BIT_NO, NONE, ANY, ANY, Action::ADOPT, "nothing is recorded"},
    {"switched", SELECTED_RUNNING, BIT_NO, BIT_NO, COMMITTED, BIT_NO, ANY, Action::TRY_OR_ADOPT,
     "another program has switched the slot"},
    {"committed", SELECTED_RUNNING, BIT_NO, BIT_NO, COMMITTED, BIT_YES, ANY, Action::NOTHING,
     "committed"},
};

char slot_in(const char* value) {
    return strlen(value) == 1 && is_slot(value[0]) ? value[0] : NO_SLOT;
}

uint8_t bit(bool condition) {
    return condition ? BIT_YES : BIT_NO;
}

uint8_t selection(const Observation& seen) {
    if (!is_slot(seen.running)) {
        return RUNNING_UNKNOWN;
    }
    if (!seen.isReadable) {
        return SELECTED_UNREADABLE;
    }
    const char selected = slot_in(seen.environment.values[BOOTSYSTEM]);
    return selected == NO_SLOT        ? SELECTED_NONE
           : selected == seen.running ? SELECTED_RUNNING
                                      : SELECTED_OTHER;
}

// Whether the boot loader has returned from the other slot and that is not recorded yet. Its
// variable rolled_back proves that only until then: a committed system does not write to the
// environment, so the variable keeps its value.
bool is_fallback(const Observation& seen) {
    const TrialRecord& record = seen.record;
    const char failed = slot_in(seen.environment.values[ROLLED_BACK]);
    const bool isRecorded =
        record.phase == Phase::COMMITTED && record.trial == failed && record.reason[0] != '\0';
    return failed != NO_SLOT && failed == other_slot(seen.running) && !isRecorded;
}

}  // namespace

char other_slot(char slot) {
    return slot == 'A' ? 'B' : slot == 'B' ? 'A' : NO_SLOT;
}

const State& state_of(const Observation& seen) {
    const TrialRecord& record = seen.record;
    const char subject = record.phase == Phase::COMMITTED ? record.committed : record.trial;
    const uint8_t selected = selection(seen);
    const uint8_t flag = bit(strcmp(seen.environment.values[UPGRADE_AVAILABLE], "1") == 0);
    const uint8_t fallback = bit(is_fallback(seen));
    const uint8_t phase = bit(record.phase);
    const uint8_t isRunning = bit(subject == seen.running);
    const uint8_t isRestarted = bit(seen.isRestarted);
    const auto* row = std::ranges::find_if(STATES, [&](const State& state) {
        return (state.selected & selected) != 0 && (state.flag & flag) != 0 &&
               (state.fallback & fallback) != 0 && (state.phases & phase) != 0 &&
               (state.isRunning & isRunning) != 0 && (state.isRestarted & isRestarted) != 0;
    });
    return row != std::end(STATES) ? *row : STATES[0];
}
