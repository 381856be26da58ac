#include "chunks/index.h"

#include <string.h>

#include <algorithm>

namespace {

constexpr char MAGIC[8] = {'c', 'o', 'r', 'v', 'o', 'c', 'h', 'k'};
constexpr uint32_t VERSION = 1;
// Offsets in bytes.
constexpr size_t VERSION_AT = 8;
constexpr size_t COUNT_AT = 12;
constexpr size_t IMAGE_SIZE_AT = 16;
constexpr size_t FRAMES_SIZE_AT = 24;
constexpr size_t FRAME_SIZE_AT = 2;
constexpr size_t DIGEST_AT = 4;
constexpr size_t FRAME_DIGEST_AT = DIGEST_AT + CHUNK_DIGEST_SIZE;

static_assert(FRAME_DIGEST_AT + FRAME_DIGEST_SIZE == CHUNK_ENTRY_SIZE);
static_assert(FRAME_SIZE_MAX <= UINT16_MAX, "the sizes of an entry have 16 bits");

template <typename T>
T read_number(const char* from) {
    uint64_t value = 0;
    for (size_t i = 0; i < sizeof(T); ++i) {
        value |= static_cast<uint64_t>(static_cast<unsigned char>(from[i])) << (8 * i);
    }
    return static_cast<T>(value);
}

template <typename T>
void write_number(char* to, T value) {
    for (size_t i = 0; i < sizeof(T); ++i) {
        to[i] = static_cast<char>((static_cast<uint64_t>(value) >> (8 * i)) & 0xFFU);
    }
}

ChunkResult check_entries(const ChunkIndex& index, uint32_t& wrong) {
    // The sums cannot overflow: each entry adds less than 2^16 to them.
    uint64_t imageSize = 0;
    uint64_t framesSize = 0;
    for (uint32_t i = 0; i < index.count; ++i) {
        const ChunkEntry entry = chunk_entry(index, i);
        wrong = i;
        const uint32_t least = i + 1 == index.count ? 1 : CHUNK_SIZE_MIN;
        if (entry.size < least || entry.size > CHUNK_SIZE_MAX) {
            return CHUNKS_CHUNK_SIZE;
        }
        if (entry.frameSize == 0 || entry.frameSize > entry.size + FRAME_OVERHEAD_MAX) {
            return CHUNKS_FRAME_SIZE;
        }
        imageSize += entry.size;
        framesSize += entry.frameSize;
    }
    if (imageSize != index.imageSize) {
        return CHUNKS_IMAGE_SUM;
    }
    return framesSize == index.framesSize ? CHUNKS_OK : CHUNKS_FILE_SUM;
}

}  // namespace

ChunkResult read_chunk_index(std::span<const char> bytes, uint64_t imageSize, uint64_t framesSize,
                             ChunkIndex& index, uint32_t& wrong) {
    index = {};
    wrong = 0;
    if (bytes.size() < CHUNK_INDEX_HEAD_SIZE || memcmp(bytes.data(), MAGIC, sizeof(MAGIC)) != 0) {
        return CHUNKS_NOT_AN_INDEX;
    }
    if (read_number<uint32_t>(bytes.data() + VERSION_AT) != VERSION) {
        return CHUNKS_OTHER_VERSION;
    }
    const auto count = read_number<uint32_t>(bytes.data() + COUNT_AT);
    const std::span<const char> entries = bytes.subspan(CHUNK_INDEX_HEAD_SIZE);
    if (entries.size() != static_cast<uint64_t>(count) * CHUNK_ENTRY_SIZE) {
        return CHUNKS_INDEX_SIZE;
    }
    const ChunkIndex read = {.entries = entries,
                             .count = count,
                             .imageSize = read_number<uint64_t>(bytes.data() + IMAGE_SIZE_AT),
                             .framesSize = read_number<uint64_t>(bytes.data() + FRAMES_SIZE_AT)};
    if (read.imageSize != imageSize) {
        return CHUNKS_OTHER_IMAGE_SIZE;
    }
    if (read.framesSize != framesSize) {
        return CHUNKS_OTHER_FILE_SIZE;
    }
    const ChunkResult result = check_entries(read, wrong);
    if (result == CHUNKS_OK) {
        index = read;
    }
    return result;
}

ChunkEntry chunk_entry(const ChunkIndex& index, uint32_t number) {
    const char* const from = index.entries.data() + number * CHUNK_ENTRY_SIZE;
    ChunkEntry entry = {.size = read_number<uint16_t>(from),
                        .frameSize = read_number<uint16_t>(from + FRAME_SIZE_AT)};
    memcpy(entry.digest.data(), from + DIGEST_AT, CHUNK_DIGEST_SIZE);
    memcpy(entry.frameDigest.data(), from + FRAME_DIGEST_AT, FRAME_DIGEST_SIZE);
    return entry;
}

std::array<char, CHUNK_INDEX_HEAD_SIZE> format_chunk_index_head(const ChunkIndex& index) {
    std::array<char, CHUNK_INDEX_HEAD_SIZE> bytes = {};
    std::ranges::copy(MAGIC, bytes.begin());
    write_number(bytes.data() + VERSION_AT, VERSION);
    write_number(bytes.data() + COUNT_AT, index.count);
    write_number(bytes.data() + IMAGE_SIZE_AT, index.imageSize);
    write_number(bytes.data() + FRAMES_SIZE_AT, index.framesSize);
    return bytes;
}

std::array<char, CHUNK_ENTRY_SIZE> format_chunk_entry(const ChunkEntry& entry) {
    std::array<char, CHUNK_ENTRY_SIZE> bytes = {};
    write_number(bytes.data(), static_cast<uint16_t>(entry.size));
    write_number(bytes.data() + FRAME_SIZE_AT, static_cast<uint16_t>(entry.frameSize));
    memcpy(bytes.data() + DIGEST_AT, entry.digest.data(), CHUNK_DIGEST_SIZE);
    memcpy(bytes.data() + FRAME_DIGEST_AT, entry.frameDigest.data(), FRAME_DIGEST_SIZE);
    return bytes;
}

const char* chunk_result_text(ChunkResult result) {
    switch (result) {
        case CHUNKS_OK:
            return "no error";
        case CHUNKS_NO_MEMORY:
            return "out of memory";
        case CHUNKS_NOT_AN_INDEX:
            return "not an index of chunks";
        case CHUNKS_OTHER_VERSION:
            return "the version of the index is not known";
        case CHUNKS_INDEX_SIZE:
            return "the size of the index does not fit its number of chunks";
        case CHUNKS_OTHER_IMAGE_SIZE:
            return "the index is for an image of another size";
        case CHUNKS_OTHER_FILE_SIZE:
            return "the index is for a file of frames of another size";
        case CHUNKS_CHUNK_SIZE:
            return "the chunk is smaller or larger than allowed";
        case CHUNKS_FRAME_SIZE:
            return "the frame is empty or larger than allowed";
        case CHUNKS_IMAGE_SUM:
            return "the chunks are together not as large as the image";
        case CHUNKS_FILE_SUM:
            return "the frames are together not as large as their file";
        case CHUNKS_FRAME_DIGEST:
            return "the frame does not have the digest of the index";
        case CHUNKS_FRAME_FORM:
            return "not one frame of one segment without a dictionary";
        case CHUNKS_FRAME_CONTENT:
            return "the frame does not contain as many bytes as the index states";
        case CHUNKS_FRAME_BROKEN:
            return "the frame cannot be decompressed";
        case CHUNKS_DIGEST:
            return "the chunk does not have the digest of the index";
    }
    return "unknown error";
}
