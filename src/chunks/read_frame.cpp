#include <zstd.h>

#include <string_view>

#include "digest.h"

namespace {

constexpr std::string_view MAGIC("\x28\xB5\x2F\xFD", 4);
constexpr size_t DESCRIPTOR_AT = MAGIC.size();
// Of its bits those for a single segment, one that is unused, one that is reserved, and two for the
// identifier of a dictionary.
constexpr unsigned DESCRIPTOR_MASK = 0x3BU;
constexpr unsigned SINGLE_SEGMENT = 0x20U;

ChunkResult check_frame_form(const ChunkEntry& entry, std::span<const char> frame) {
    // libzstd also reads skippable frames and formats of its first versions, with other magic
    // numbers.
    if (frame.size() <= DESCRIPTOR_AT ||
        !std::string_view(frame.data(), frame.size()).starts_with(MAGIC) ||
        (static_cast<unsigned char>(frame[DESCRIPTOR_AT]) & DESCRIPTOR_MASK) != SINGLE_SEGMENT) {
        return CHUNKS_FRAME_FORM;
    }
    if (ZSTD_findFrameCompressedSize(frame.data(), frame.size()) != frame.size()) {
        return CHUNKS_FRAME_FORM;
    }
    return ZSTD_getFrameContentSize(frame.data(), frame.size()) == entry.size
               ? CHUNKS_OK
               : CHUNKS_FRAME_CONTENT;
}

}  // namespace

void DecompressorDeleter::operator()(ZSTD_DCtx_s* decompressor) const {
    ZSTD_freeDCtx(decompressor);
}

ChunkResult make_chunk_reader(ChunkReader& reader) {
    reader.hash = make_chunk_hash();
    reader.decompressor.reset(ZSTD_createDCtx());
    return reader.hash && reader.decompressor ? CHUNKS_OK : CHUNKS_NO_MEMORY;
}

ChunkResult digest_chunk(ChunkReader& reader, std::span<const char> chunk, ChunkDigest& digest) {
    return start_of_digest(reader.hash, chunk, digest);
}

ChunkResult check_chunk(ChunkReader& reader, const ChunkEntry& entry, std::span<const char> chunk) {
    ChunkDigest found = {};
    const ChunkResult result = digest_chunk(reader, chunk, found);
    if (result != CHUNKS_OK) {
        return result;
    }
    return chunk.size() == entry.size && found == entry.digest ? CHUNKS_OK : CHUNKS_DIGEST;
}

ChunkResult restore_chunk(ChunkReader& reader, const ChunkEntry& entry, std::span<const char> frame,
                          std::span<char> chunk) {
    FrameDigest found = {};
    ChunkResult result = start_of_digest(reader.hash, frame, found);
    if (result != CHUNKS_OK) {
        return result;
    }
    if (frame.size() != entry.frameSize || found != entry.frameDigest) {
        return CHUNKS_FRAME_DIGEST;
    }
    result = check_frame_form(entry, frame);
    if (result != CHUNKS_OK) {
        return result;
    }
    const size_t size = ZSTD_decompressDCtx(reader.decompressor.get(), chunk.data(), chunk.size(),
                                            frame.data(), frame.size());
    if (ZSTD_isError(size) != 0) {
        return CHUNKS_FRAME_BROKEN;
    }
    return check_chunk(reader, entry, chunk.first(size));
}
