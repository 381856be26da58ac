// The record of a trial: which system is committed, and what has happened to the other one. It is
// kept in two copies, of which the older one is overwritten, so that a power cut leaves the other.
#ifndef COMMIT_RECORD_H
#define COMMIT_RECORD_H

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <span>

// The values are stored.
enum class Phase : uint8_t {
    NONE = 0,          // there is no record that can be read
    COMMITTED = 1,     // nothing is on trial; a reason explains why the last trial failed
    ARMED = 2,         // the other slot is selected for the next start
    TRIAL = 3,         // it was started, and its health is being checked
    COMMITTING = 4,    // it was healthy; the boot environment is about to be changed
    ROLLING_BACK = 5,  // it was not; the boot environment is about to be changed
};

constexpr char NO_SLOT = '?';  // the other values of a slot are 'A' and 'B'
constexpr bool is_slot(char slot) {
    return slot == 'A' || slot == 'B';
}
constexpr size_t REASON_SIZE = 128;
constexpr size_t BOOT_ID_SIZE = 40;

struct TrialRecord {
    Phase phase = Phase::NONE;
    char committed = NO_SLOT;
    char trial = NO_SLOT;        // the slot of the current or of the last trial
    uint16_t starts = 0;         // of the trial, without those that ended in an orderly way
    uint16_t restarts = 0;       // requested by the rollback
    uint32_t elapsedS = 0;       // seconds of the trial's starts that ended in an orderly way
    char boot[BOOT_ID_SIZE]{};   // the kernel's id of the start that armed, or was counted
    char reason[REASON_SIZE]{};  // why the trial failed; "" if it did not
};

constexpr int RECORD_COPIES = 2;
constexpr size_t STORED_RECORD_SIZE = 196;
// A later version may append fields, which this one ignores.
constexpr size_t STORED_RECORD_SIZE_MAX = 1024;

enum RecordResult {
    RECORD_OK = 0,
    RECORD_MISSING = 1,     // no copy exists
    RECORD_CORRUPT = 2,     // copies exist, but none is complete
    RECORD_NOT_STORED = 3,  // a copy cannot be written, or was read back differently
};

// Where the copies are. The tests have another one, which simulates power cuts.
struct RecordStorage {
    void* context;
    // Reads at most `size` bytes of a copy; returns the number of bytes, 0 if it cannot be read.
    size_t (*read)(void* context, int copy, char* bytes, size_t size);
    // Replaces the beginning of a copy. Returns whether the bytes are on storage.
    bool (*write)(void* context, int copy, std::span<const char> bytes);
};

using StoredRecord = std::array<char, STORED_RECORD_SIZE>;

// Returns the record as the bytes of a copy. Generations are compared modulo 2^32.
StoredRecord encode_record(const TrialRecord& record, uint32_t generation);

// Returns whether the bytes are a complete copy, of this version or of a later one.
bool decode_record(std::span<const char> bytes, TrialRecord& record, uint32_t& generation);

// Reads the newest complete copy. Returns RECORD_OK, or RECORD_MISSING or RECORD_CORRUPT with an
// empty record.
RecordResult load_record(const RecordStorage& storage, TrialRecord& record);

// Overwrites the older copy and reads it back. Returns RECORD_OK or RECORD_NOT_STORED; after that
// the other copy is still complete.
RecordResult store_record(const RecordStorage& storage, const TrialRecord& record);

constexpr char COMMIT_FOLDER[] = "/config/commit/";  // unless the program's settings name another

// The copies as files of a folder.
struct RecordFolder {
    const char* path;  // ends in "/"
};
// Creates the folder at the first write; its parent must exist. `folder` must outlive the result.
RecordStorage files_of(RecordFolder& folder);

#endif  // COMMIT_RECORD_H
