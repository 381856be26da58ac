#include "agent/part_record.h"

#include <inttypes.h>
#include <stdio.h>

#include "base/hex.h"
#include "package/files.h"

namespace {

constexpr size_t RECORD_SIZE_MAX = 1024;  // bytes

// The only valid form of a record. load_part_record() formats what it has parsed and compares the
// texts, so that an incomplete or damaged record is refused.
std::string record_text(const PartRecord& record) {
    return "corvo-download 1\nsize " + std::to_string(record.size) + "\nsha256 " +
           digest_text(record.sha256) + "\nkept " + std::to_string(record.kept) + "\ndifferent " +
           (record.cameDifferent ? "1" : "0") + "\netag " + record.entityTag + "\nend\n";
}

}  // namespace

bool load_part_record(const OpenFolder& folder, const std::string& name, PartRecord& record) {
    std::string text;
    if (!read_small_file(folder.path + name, RECORD_SIZE_MAX, FileKind::NO_LINK, text).ok()) {
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

AgentStatus store_part_record(const OpenFolder& folder, const std::string& name,
                              const PartRecord& record) {
    return store_in_folder(folder, name, record_text(record));
}
