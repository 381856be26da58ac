#include "agent/part_file.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "agent/download.h"
#include "agent/stored_file.h"
#include "base/hex.h"
#include "package/files.h"

namespace {

// All bytes up to a multiple of this are flushed before the next byte is written. After a power cut
// the bytes below the last multiple are therefore reliable.
constexpr uint64_t FLUSH_STEP = 1048576;
constexpr char RECORD_SUFFIX[] = ".from";
constexpr size_t RECORD_SIZE_MAX = 1024;  // bytes
constexpr mode_t PART_MODE = 0600;

std::string part_name(const PartFile& part) {
    return part.file.name + PART_SUFFIX;
}

std::string record_name(const PartFile& part) {
    return part_name(part) + RECORD_SUFFIX;
}

// For messages.
std::string whole_path(const PartFile& part) {
    return part.folder.path + part.file.name;
}

std::string part_path(const PartFile& part) {
    return part.folder.path + part_name(part);
}

int open_part_file(const PartFile& part, int more) {
    // O_NONBLOCK, because opening a pipe of this name would block.
    return openat(part.folder.get(), part_name(part).c_str(),
                  O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | more, PART_MODE);
}

// Whether this is a regular file with one name. A file with a second hard link is also used
// elsewhere, so nothing is written into it.
bool is_own_file(int file, struct stat& status) {
    return file >= 0 && fstat(file, &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_nlink == 1;
}

// The only valid form of a record. load_record() formats what it has parsed and compares the
// texts, so that an incomplete or damaged record is refused.
std::string record_text(const PartRecord& record) {
    return "corvo-download 1\nsize " + std::to_string(record.size) + "\nsha256 " +
           digest_text(record.sha256) + "\nkept " + std::to_string(record.kept) + "\ndifferent " +
           (record.cameDifferent ? "1" : "0") + "\netag " + record.entityTag + "\nend\n";
}

// Returns false when the record does not exist or is not complete.
bool load_record(const PartFile& part, PartRecord& record) {
    std::string text;
    if (!read_small_file(part.folder.path + record_name(part), RECORD_SIZE_MAX, FileKind::NO_LINK,
                         text)
             .ok()) {
        return false;
    }
    record = {};
    char digest[2 * SHA256_SIZE + 1] = "";
    int different = 0;
    int tag = 0;
    if (sscanf(text.c_str(),
               "corvo-download 1 size %" SCNu64 " sha256 %64s kept %" SCNu64 " different %d etag%n",
               &record.size, digest, &record.kept, &different, &tag) != 4 ||
        !corvo::parse_hex(digest, record.sha256)) {
        return false;
    }
    record.cameDifferent = different == 1;
    const auto begin = static_cast<size_t>(tag) + 1;
    const size_t end = text.find('\n', begin);
    if (tag > 0 && end != std::string::npos) {
        record.entityTag = text.substr(begin, end - begin);
    }
    return record_text(record) == text;
}

AgentStatus store_record(const PartFile& part) {
    return store_in_folder(part.folder, record_name(part), record_text(part.record));
}

AgentStatus different(const std::string& text) {
    return agent_fault(AGENT_DIFFERENT, text);
}

void begin_digests(PartFile& part) {
    part.position = 0;
    (void)part.sha256.take();
    part.check.reset();
    if (part.content != nullptr) {
        part.check.emplace(*part.content, part.file.name);
    }
}

AgentStatus update_digests(PartFile& part, std::span<const char> bytes) {
    part.sha256.update(bytes);
    if (!part.check) {
        return {};
    }
    PackageStatus status = part.check->feed(bytes);
    return status.ok() ? AgentStatus{} : different(status.text);
}

// Reads `size` bytes from the beginning of a file that has just been opened into the digests.
AgentStatus read_back(PartFile& part, int file, uint64_t size) {
    begin_digests(part);
    AgentStatus status;
    const int64_t taken = read_pieces(file, size, [&](std::span<const char> bytes) {
        status = part.stop ? agent_stopped() : take_stored(part, bytes);
        return status.ok();
    });
    if (status.ok() && taken < static_cast<int64_t>(size)) {
        errno = taken < 0 ? errno : EIO;  // the file has become shorter
        return storage_fault("read", whole_path(part));
    }
    return status;
}

// How many bytes of NAME.part are reliable after a power cut. The link that they were downloaded
// from is not compared: its query may change with each poll, and the server compares the entity
// tag.
uint64_t reliable_bytes(const PartRecord& record, uint64_t size) {
    if (record.entityTag.empty() || size > record.size || record.kept > size) {
        return 0;
    }
    const uint64_t flushed = size == 0 ? 0 : (size - 1) / FLUSH_STEP * FLUSH_STEP;
    return std::max(flushed, record.kept);
}

}  // namespace

AgentStatus check_whole_file(PartFile& part) {
    const std::string path = whole_path(part);
    const corvo::UniqueFd file(openat(part.folder.get(), part.file.name.c_str(),
                                      O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status = {};
    AgentStatus result = different(path + " does not exist");
    if (file.valid() && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
        static_cast<uint64_t>(status.st_size) == part.file.size) {
        result = read_back(part, file.get(), part.file.size);
        if (result.ok()) {
            result = check_sums(part);
        }
    }
    if (result.result == AGENT_DIFFERENT) {
        AgentStatus removed = remove_entry(part.folder, part.file.name);
        return removed.ok() ? result : removed;
    }
    return result;
}

AgentStatus open_unrecorded_part(PartFile& part, uint64_t& size) {
    const std::string path = part_path(part);
    struct stat status = {};
    part.descriptor.reset(open_part_file(part, 0));
    if (!is_own_file(part.descriptor.get(), status)) {
        AgentStatus removed = remove_entry(part.folder, part_name(part));
        if (!removed.ok()) {
            return removed;
        }
        part.descriptor.reset(open_part_file(part, O_EXCL));
    }
    if (!is_own_file(part.descriptor.get(), status)) {
        return storage_fault("write", path);
    }
    size = static_cast<uint64_t>(status.st_size);
    begin_digests(part);
    return {};
}

AgentStatus take_stored(PartFile& part, std::span<const char> bytes) {
    AgentStatus status = update_digests(part, bytes);
    part.position += status.ok() ? bytes.size() : 0;
    return status;
}

AgentStatus cut_part(PartFile& part) {
    return ftruncate(part.descriptor.get(), static_cast<off_t>(part.position)) == 0
               ? AgentStatus{}
               : storage_fault("truncate", part_path(part));
}

AgentStatus open_part(PartFile& part) {
    uint64_t stored = 0;
    AgentStatus opened = open_unrecorded_part(part, stored);
    if (!opened.ok()) {
        return opened;
    }
    PartRecord& record = part.record;
    if (!load_record(part, record) || record.size != part.file.size ||
        record.sha256 != part.file.sha256) {
        record = {};
    }
    const uint64_t size = reliable_bytes(record, stored);
    if (size == 0) {
        return empty_part(part);
    }
    if (ftruncate(part.descriptor.get(), static_cast<off_t>(size)) != 0) {
        return storage_fault("truncate", part_path(part));
    }
    AgentStatus result = read_back(part, part.descriptor.get(), size);
    return result.result == AGENT_DIFFERENT ? empty_part(part) : result;
}

AgentStatus empty_part(PartFile& part) {
    if (ftruncate(part.descriptor.get(), 0) != 0) {
        return storage_fault("empty", part_path(part));
    }
    part.record = {.size = part.file.size,
                   .sha256 = part.file.sha256,
                   .entityTag = {},
                   .cameDifferent = part.record.cameDifferent};
    begin_digests(part);
    return {};
}

AgentStatus start_part(PartFile& part, const std::string& entityTag) {
    AgentStatus status = empty_part(part);
    if (!status.ok()) {
        return status;
    }
    // The old bytes must be gone from storage before the record of the new entity tag is. After a
    // power cut between both, they would otherwise be taken for bytes of the new file.
    if (fdatasync(part.descriptor.get()) != 0) {
        return storage_fault("empty", part_path(part));
    }
    part.record.entityTag = entityTag;
    return store_record(part);
}

AgentStatus append_part(PartFile& part, std::span<const char> bytes) {
    while (!bytes.empty()) {
        const uint64_t step = FLUSH_STEP - part.position % FLUSH_STEP;
        const std::span<const char> piece =
            bytes.first(static_cast<size_t>(std::min<uint64_t>(step, bytes.size())));
        AgentStatus status = update_digests(part, piece);
        if (!status.ok()) {
            return status;
        }
        errno = ENOSPC;  // reported if only a part of the bytes is written
        if (pwrite(part.descriptor.get(), piece.data(), piece.size(),
                   static_cast<off_t>(part.position)) != static_cast<ssize_t>(piece.size())) {
            return storage_fault("write", part_path(part));
        }
        part.position += piece.size();
        bytes = bytes.subspan(piece.size());
        if (part.position % FLUSH_STEP == 0 && fdatasync(part.descriptor.get()) != 0) {
            return storage_fault("flush", part_path(part));
        }
    }
    return {};
}

AgentStatus keep_part(PartFile& part) {
    if (part.record.kept == part.position) {
        return {};
    }
    AgentStatus status = flush_part(part);
    if (!status.ok()) {
        return status;
    }
    part.record.kept = part.position;
    return store_record(part);
}

AgentStatus flush_part(PartFile& part) {
    return fdatasync(part.descriptor.get()) == 0 ? AgentStatus{}
                                                 : storage_fault("flush", part_path(part));
}

AgentStatus check_sums(PartFile& part) {
    const Sha256 found = part.sha256.take();
    if (found != part.file.sha256) {
        return different(part.file.name + " has the SHA-256 " + digest_text(found) +
                         ", the server announced " + digest_text(part.file.sha256));
    }
    PackageStatus status = part.check ? part.check->finish() : PackageStatus{};
    return status.ok() ? AgentStatus{} : different(status.text);
}

AgentStatus put_in_place(PartFile& part) {
    const std::string path = part_path(part);
    if (fsync(part.descriptor.get()) != 0) {
        return storage_fault("flush", path);
    }
    if (renameat(part.folder.get(), part_name(part).c_str(), part.folder.get(),
                 part.file.name.c_str()) != 0) {
        return storage_fault("rename", path);
    }
    // The record is removed last. A power cut may undo the rename, and without the record every
    // byte would be downloaded again.
    AgentStatus status = flush_folder(part.folder);
    if (status.ok()) {
        remove_part(part);
    }
    return status;
}

void remove_part(const PartFile& part) {
    // NAME.part is removed before its record, so that a record never describes bytes of another
    // file. A failure is ignored, because it does not concern the complete file.
    for (const std::string& name :
         {part_name(part), record_name(part), fresh_path(record_name(part))}) {
        (void)remove_entry(part.folder, name);
    }
}
