#include "agent/verdict.h"

#include "package/outcome.h"

namespace {

bool is_slot(char slot) {
    return slot == 'A' || slot == 'B';
}

std::string what_was_found(const AfterRestart& seen) {
    return outcome_words(seen.record) + "; slot " + seen.slotBefore + " before, " + seen.slot +
           " now; the package is " + (seen.packageThere ? "there" : "gone");
}

// Nothing has been decided, and all that a request needs is there.
Judgement again(const AfterRestart& seen, const std::string& why, std::string& words) {
    if (seen.attempts >= ATTEMPTS_MAX) {
        words = why + "; given up after " + std::to_string(seen.attempts) + " requests";
        return Judgement::FAILURE;
    }
    words = why;
    return Judgement::AGAIN;
}

}  // namespace

bool is_other_slot(char slot, char before) {
    return is_slot(slot) && is_slot(before) && slot != before;
}

Judgement judge(const AfterRestart& seen, std::string& words) {
    const Outcome outcome = read_outcome(seen.record);
    const bool other = is_other_slot(seen.slot, seen.slotBefore);
    const bool same = is_slot(seen.slot) && seen.slot == seen.slotBefore;
    const bool asBefore = seen.record == seen.recordBefore;

    // What runs counts, not what is recorded: since then somebody's upgrade by hand may have
    // failed.
    if (other && seen.partitionsRead && seen.disagreement.empty()) {
        words = std::string("the new system runs from slot ") + seen.slot + "; " +
                outcome_words(seen.record);
        return Judgement::SUCCESS;
    }
    if (outcome == Outcome::SUCCEEDED && other && !seen.disagreement.empty()) {
        words = "recorded as success, but something else runs: " + seen.disagreement;
        return Judgement::FAILURE;
    }
    if (outcome == Outcome::SUCCEEDED && other) {
        words = outcome_words(seen.record) + "; slot " + seen.slot + ", partitions not looked at";
        return Judgement::SUCCESS;
    }
    if (outcome == Outcome::SUCCEEDED && same && !seen.packageThere) {
        words = "recorded as success, the slot was not switched";
        return Judgement::FAILURE;
    }
    if (outcome == Outcome::SUCCEEDED && same) {
        return again(seen, "the power went before the slot was switched", words);
    }
    if (outcome == Outcome::FAILED && !asBefore && same) {
        words = outcome_words(seen.record);
        return Judgement::FAILURE;
    }
    if ((outcome == Outcome::UNFINISHED || asBefore) && same && seen.packageThere) {
        return again(seen, "the upgrade was cut short", words);
    }
    words = "not what an upgrade leaves behind: " + what_was_found(seen);
    return Judgement::FAILURE;
}
