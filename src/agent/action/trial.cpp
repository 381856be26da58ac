#include "trial.h"

#include "agent/camera_state.h"
#include "commit/record.h"

namespace {

RecordResult load(TrialRecord& record) {
    RecordFolder folder = {.path = COMMIT_FOLDER};
    return load_record(files_of(folder), record);
}

}  // namespace

Trial read_trial(char slot) {
    TrialRecord record;
    const RecordResult result = load(record);
    if (result == RECORD_MISSING) {
        return {};
    }
    // After a start the record is an old one until corvo_commit has run. If the slot that it names
    // as committed is not the running one, another decision follows.
    return {.isRecorded = true,
            .isUndecided = record.phase != Phase::COMMITTED || record.committed != slot,
            .committed = record.committed,
            .tried = record.trial,
            .reason = record.reason,
            .mark = record.boot};
}

Trial read_trial() {
    TrialRecord record;
    return load(record) == RECORD_MISSING ? Trial{} : read_trial(boot_slot());
}
