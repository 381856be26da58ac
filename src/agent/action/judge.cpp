#include "agent/judge.h"

#include "package/outcome.h"

namespace {

bool is_known(char slot) {
    return slot == 'A' || slot == 'B';
}

std::string state_text(const StateAfterRestart& state) {
    return outcome_words(state.record) + "; slot " + state.slotBefore + " before, " + state.slot +
           " now; the package is " + (state.packageComplete ? "complete" : "not complete");
}

// The upgrade has neither succeeded nor failed, and the package is complete: another request may
// follow.
Judgement request_again(const StateAfterRestart& state, const std::string& why,
                        std::string& message) {
    if (state.attempts >= ATTEMPTS_MAX) {
        message = why + "; given up after " + std::to_string(state.attempts) + " requests";
        return Judgement::FAILURE;
    }
    message = why;
    return Judgement::AGAIN;
}

}  // namespace

bool slot_was_switched(char slot, char slotBefore) {
    return is_known(slot) && is_known(slotBefore) && slot != slotBefore;
}

Judgement judge(const StateAfterRestart& state, std::string& message) {
    const Outcome outcome = read_outcome(state.record);
    const bool switched = slot_was_switched(state.slot, state.slotBefore);
    const bool slotIsSame = is_known(state.slot) && state.slot == state.slotBefore;
    const bool recordIsSame = state.record == state.recordBefore;

    // The running system decides, not the outcome record: a later manual upgrade may have failed
    // and overwritten the record.
    if (switched && state.partitionsRead && state.mismatch.empty()) {
        message = std::string("the new system runs from slot ") + state.slot + "; " +
                  outcome_words(state.record);
        return Judgement::SUCCESS;
    }
    if (outcome == Outcome::SUCCEEDED && switched && !state.mismatch.empty()) {
        message = "recorded as success, but another system runs: " + state.mismatch;
        return Judgement::FAILURE;
    }
    if (outcome == Outcome::SUCCEEDED && switched) {
        message = outcome_words(state.record) + "; slot " + state.slot + ", partitions not checked";
        return Judgement::SUCCESS;
    }
    if (outcome == Outcome::SUCCEEDED && slotIsSame && !state.packageComplete) {
        message = "recorded as success, but the slot was not switched";
        return Judgement::FAILURE;
    }
    if (outcome == Outcome::SUCCEEDED && slotIsSame) {
        return request_again(state, "the camera restarted before the slot was switched", message);
    }
    if (outcome == Outcome::FAILED && !recordIsSame && slotIsSame) {
        message = outcome_words(state.record);
        return Judgement::FAILURE;
    }
    if ((outcome == Outcome::UNFINISHED || recordIsSame) && slotIsSame && state.packageComplete) {
        return request_again(state, "the upgrade was interrupted", message);
    }
    message = "unexpected state after the upgrade: " + state_text(state);
    return Judgement::FAILURE;
}
