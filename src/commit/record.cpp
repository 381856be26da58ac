#include "commit/record.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/crc32.h"
#include "base/replace_file.h"
#include "base/unique_fd.h"

namespace {

constexpr char MAGIC[4] = {'C', 'V', 'T', 'R'};
constexpr uint16_t VERSION = 1;
constexpr mode_t FILE_MODE = 0644;
constexpr mode_t FOLDER_MODE = 0755;
constexpr size_t PATH_SIZE = 256;

// The layout of a copy, in the processor's byte order. The checksum is at the end of `size` bytes.
struct Layout {
    char magic[sizeof(MAGIC)];
    uint16_t version;
    uint16_t size;
    uint32_t generation;
    uint8_t phase;
    char committed;
    char trial;
    uint8_t unused;
    uint16_t starts;
    uint16_t restarts;
    uint32_t elapsedS;
    char boot[BOOT_ID_SIZE];
    char reason[REASON_SIZE];
    uint32_t checksum;
};
static_assert(sizeof(Layout) == STORED_RECORD_SIZE);

struct Copy {
    bool complete = false;
    bool exists = false;
    uint32_t generation = 0;
    TrialRecord record;
};

bool is_newer(uint32_t one, uint32_t other) {
    return static_cast<int32_t>(one - other) > 0;
}

Copy read_copy(const RecordStorage& storage, int number) {
    std::array<char, STORED_RECORD_SIZE_MAX> bytes;
    const size_t size = storage.read(storage.context, number, bytes.data(), bytes.size());
    Copy copy;
    copy.exists = size > 0;
    copy.complete = decode_record({bytes.data(), size}, copy.record, copy.generation);
    return copy;
}

// Returns the number of the newest complete copy; -1 if none is complete.
int newest_of(const Copy (&copies)[RECORD_COPIES]) {
    if (copies[0].complete && copies[1].complete) {
        return is_newer(copies[1].generation, copies[0].generation) ? 1 : 0;
    }
    return copies[0].complete ? 0 : copies[1].complete ? 1 : -1;
}

bool path_of(const RecordFolder& folder, const char* name, char (&path)[PATH_SIZE]) {
    const int length = snprintf(path, sizeof(path), "%s%s", folder.path, name);
    return length > 0 && static_cast<size_t>(length) < sizeof(path);
}

bool copy_path(const RecordFolder& folder, int copy, char (&path)[PATH_SIZE]) {
    return path_of(folder, copy == 0 ? "record.0" : "record.1", path);
}

size_t read_file_copy(void* context, int copy, char* bytes, size_t size) {
    char path[PATH_SIZE];
    if (!copy_path(*static_cast<RecordFolder*>(context), copy, path)) {
        return 0;
    }
    const corvo::UniqueFd file(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const ssize_t length = file.valid() ? read(file.get(), bytes, size) : -1;
    return length < 0 ? 0 : static_cast<size_t>(length);
}

// Without the second flush a power cut could lose the new folder together with the record in it.
bool make_folder(const RecordFolder& folder) {
    char parent[PATH_SIZE];
    return mkdir(folder.path, FOLDER_MODE) != 0 ||
           (path_of(folder, "..", parent) && corvo::flush_folder(parent));
}

// The file is not truncated first: a full storage then still takes the bytes, because they replace
// others.
bool write_file_copy(void* context, int copy, std::span<const char> bytes) {
    const RecordFolder& folder = *static_cast<RecordFolder*>(context);
    char path[PATH_SIZE];
    if (!copy_path(folder, copy, path) || !make_folder(folder)) {
        return false;
    }
    const corvo::UniqueFd file(
        open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, FILE_MODE));
    return file.valid() &&
           write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
           fsync(file.get()) == 0 && corvo::flush_folder(folder.path);
}

}  // namespace

StoredRecord encode_record(const TrialRecord& record, uint32_t generation) {
    Layout layout = {};
    memcpy(layout.magic, MAGIC, sizeof(MAGIC));
    layout.version = VERSION;
    layout.size = sizeof(Layout);
    layout.generation = generation;
    layout.phase = static_cast<uint8_t>(record.phase);
    layout.committed = record.committed;
    layout.trial = record.trial;
    layout.starts = record.starts;
    layout.restarts = record.restarts;
    layout.elapsedS = record.elapsedS;
    memcpy(layout.boot, record.boot, sizeof(layout.boot));
    memcpy(layout.reason, record.reason, sizeof(layout.reason));
    StoredRecord bytes;
    memcpy(bytes.data(), &layout, sizeof(layout));
    const std::span<const char> checked(bytes.data(), offsetof(Layout, checksum));
    layout.checksum = corvo::crc32(0, checked);
    memcpy(bytes.data() + checked.size(), &layout.checksum, sizeof(layout.checksum));
    return bytes;
}

bool decode_record(std::span<const char> bytes, TrialRecord& record, uint32_t& generation) {
    Layout layout = {};
    if (bytes.size() < sizeof(layout)) {
        return false;
    }
    memcpy(&layout, bytes.data(), sizeof(layout));
    if (memcmp(layout.magic, MAGIC, sizeof(MAGIC)) != 0 || layout.version < VERSION ||
        layout.size < sizeof(layout) || layout.size > bytes.size() ||
        layout.phase < static_cast<uint8_t>(Phase::COMMITTED) ||
        layout.phase > static_cast<uint8_t>(Phase::ROLLING_BACK) || !is_slot(layout.committed) ||
        (layout.phase != static_cast<uint8_t>(Phase::COMMITTED) && !is_slot(layout.trial))) {
        return false;
    }
    uint32_t checksum = 0;
    const size_t checkedSize = layout.size - sizeof(checksum);
    memcpy(&checksum, bytes.data() + checkedSize, sizeof(checksum));
    if (checksum != corvo::crc32(0, bytes.first(checkedSize))) {
        return false;
    }
    generation = layout.generation;
    record.phase = static_cast<Phase>(layout.phase);
    record.committed = layout.committed;
    record.trial = layout.trial;
    record.starts = layout.starts;
    record.restarts = layout.restarts;
    record.elapsedS = layout.elapsedS;
    snprintf(record.boot, sizeof(record.boot), "%.*s", static_cast<int>(sizeof(layout.boot) - 1),
             layout.boot);
    snprintf(record.reason, sizeof(record.reason), "%.*s",
             static_cast<int>(sizeof(layout.reason) - 1), layout.reason);
    return true;
}

RecordResult load_record(const RecordStorage& storage, TrialRecord& record) {
    const Copy copies[RECORD_COPIES] = {read_copy(storage, 0), read_copy(storage, 1)};
    const int newest = newest_of(copies);
    if (newest < 0) {
        record = {};
        return copies[0].exists || copies[1].exists ? RECORD_CORRUPT : RECORD_MISSING;
    }
    record = copies[newest].record;
    return RECORD_OK;
}

RecordResult store_record(const RecordStorage& storage, const TrialRecord& record) {
    const Copy copies[RECORD_COPIES] = {read_copy(storage, 0), read_copy(storage, 1)};
    const int newest = newest_of(copies);
    const int copy = newest == 0 ? 1 : 0;
    const StoredRecord bytes =
        encode_record(record, newest < 0 ? 0 : copies[newest].generation + 1);
    if (!storage.write(storage.context, copy, bytes)) {
        return RECORD_NOT_STORED;
    }
    StoredRecord stored = {};
    const size_t size = storage.read(storage.context, copy, stored.data(), stored.size());
    return size == bytes.size() && stored == bytes ? RECORD_OK : RECORD_NOT_STORED;
}

RecordStorage files_of(RecordFolder& folder) {
    return {.context = &folder, .read = read_file_copy, .write = write_file_copy};
}
