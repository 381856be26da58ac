#include "agent/verdict.h"

#include "package/outcome.h"

namespace {

bool is_slot(char slot) {
    return slot == 'A' || slot == 'B';
}

std::string findings_text(const AfterRestart& state) {
    return outcome_words(state.record) + "; slot " + state.slotBefore + " before, " + state.slot +
           " now; the package is " + (state.packageComplete ? "complete" : "not complete");
}

// The upgrade has neither succeeded nor failed, and the package is complete: another request may
// follow.
Judgement again(const AfterRestart& state, const std::string& why, std::string& message) {
    if (state.attempts >= ATTEMPTS_MAX) {
        message = why + "; given up after " + std::to_string(state.attempts) + " requests";
        return Judgement::FAILURE;
    }
    message = why;
    return Judgement::AGAIN;
}

}  // namespace

bool is_other_slot(char slot, char before) {
    return is_slot(slot) && is_slot(before) && slot != before;
}

Judgement judge(const AfterRestart& state, std::string& message) {
    const Outcome outcome = read_outcome(state.record);
    const bool other = is_other_slot(state.slot, state.slotBefore);
    const bool same = is_slot(state.slot) && state.slot == state.slotBefore;
    const bool asBefore = state.record == state.recordBefore;

    // The running system decides, not the outcome record: a later manual upgrade may have failed
    // and overwritten the record.
    if (other && state.partitionsRead && state.mismatch.empty()) {
        message = std::string("the new system runs from slot ") + state.slot + "; " +
                  outcome_words(state.record);
        return Judgement::SUCCESS;
    }
    if (outcome == Outcome::SUCCEEDED && other && !state.mismatch.empty()) {
        message = "recorded as success, but another system runs: " + state.mismatch;
        return Judgement::FAILURE;
    }
    if (outcome == Outcome::SUCCEEDED && other) {
        message = outcome_words(state.record) + "; slot " + state.slot + ", partitions not checked";
        return Judgement::SUCCESS;
    }
    if (outcome == Outcome::SUCCEEDED && same && !state.packageComplete) {
        message = "recorded as success, but the slot was not switched";
        return Judgement::FAILURE;
    }
    if (outcome == Outcome::SUCCEEDED && same) {
        return again(state, "the camera restarted before the slot was switched", message);
    }
    if (outcome == Outcome::FAILED && !asBefore && same) {
        message = outcome_words(state.record);
        return Judgement::FAILURE;
    }
    if ((outcome == Outcome::UNFINISHED || asBefore) && same && state.packageComplete) {
        return again(state, "the upgrade was interrupted", message);
    }
    message = "unexpected state after the upgrade: " + findings_text(state);
    return Judgement::FAILURE;
}
