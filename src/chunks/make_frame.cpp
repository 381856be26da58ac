#include <zstd.h>

#include "digest.h"

namespace {

// Each image is compressed once and downloaded often. The highest level, 22, needs half as much
// time again and saves 0.1 %.
constexpr int LEVEL = 19;

bool set(ZSTD_CCtx* compressor, ZSTD_cParameter parameter, int value) {
    return ZSTD_isError(ZSTD_CCtx_setParameter(compressor, parameter, value)) == 0;
}

}  // namespace

void CompressorDeleter::operator()(ZSTD_CCtx_s* compressor) const {
    ZSTD_freeCCtx(compressor);
}

ChunkResult make_chunk_writer(ChunkWriter& writer) {
    writer.hash = make_chunk_hash();
    writer.compressor.reset(ZSTD_createCCtx());
    // With the checksum `zstd -t` finds any damage; it does not check the digests of the index.
    const bool done = writer.hash && writer.compressor &&
                      set(writer.compressor.get(), ZSTD_c_compressionLevel, LEVEL) &&
                      set(writer.compressor.get(), ZSTD_c_checksumFlag, 1);
    return done ? CHUNKS_OK : CHUNKS_NO_MEMORY;
}

ChunkResult make_frame(ChunkWriter& writer, std::span<const char> chunk, std::span<char> frame,
                       ChunkEntry& entry) {
    // With the whole chunk at hand libzstd states its size in the frame and makes one segment of
    // it.
    const size_t size = ZSTD_compress2(writer.compressor.get(), frame.data(), frame.size(),
                                       chunk.data(), chunk.size());
    if (ZSTD_isError(size) != 0) {
        return CHUNKS_NO_MEMORY;
    }
    entry.size = static_cast<uint32_t>(chunk.size());
    entry.frameSize = static_cast<uint32_t>(size);
    const ChunkResult result = start_of_digest(writer.hash, chunk, entry.digest);
    return result == CHUNKS_OK ? start_of_digest(writer.hash, frame.first(size), entry.frameDigest)
                               : result;
}
