// The frames of a chunked image (the file NAME.zst). The frame of a chunk is one Zstandard frame
// (RFC 8878) with these restrictions: it states the size of its content, has a single segment, so
// that its window is its content, names no dictionary, and nothing precedes or follows it.
#ifndef CHUNKS_FRAME_H
#define CHUNKS_FRAME_H

#include <memory>
#include <span>

#include "chunks/index.h"
#include "chunks/result.h"

struct evp_md_ctx_st;  // OpenSSL's
struct ZSTD_DCtx_s;    // libzstd's
struct ZSTD_CCtx_s;

struct ChunkHashDeleter {
    void operator()(evp_md_ctx_st* hash) const;
};
struct DecompressorDeleter {
    void operator()(ZSTD_DCtx_s* decompressor) const;
};
struct CompressorDeleter {
    void operator()(ZSTD_CCtx_s* compressor) const;
};

using OwnedChunkHash = std::unique_ptr<evp_md_ctx_st, ChunkHashDeleter>;

// Checks chunks and restores them from frames. Takes about 160 KiB, which do not depend on the
// image. Not for use by several threads at a time.
struct ChunkReader {
    OwnedChunkHash hash;
    std::unique_ptr<ZSTD_DCtx_s, DecompressorDeleter> decompressor;
};

// Returns CHUNKS_OK or CHUNKS_NO_MEMORY.
ChunkResult make_chunk_reader(ChunkReader& reader);

// Computes the digest of a chunk, as its entry has it. Returns CHUNKS_OK or CHUNKS_NO_MEMORY.
ChunkResult digest_chunk(ChunkReader& reader, std::span<const char> chunk, ChunkDigest& digest);

// Checks bytes that may be the chunk of an entry, from wherever they come. Returns CHUNKS_OK,
// CHUNKS_DIGEST, or CHUNKS_NO_MEMORY.
ChunkResult check_chunk(ChunkReader& reader, const ChunkEntry& entry, std::span<const char> chunk);

// Restores the chunk of an entry, whose frame is `frame`: any bytes, from the network, of any
// number. `chunk` has entry.size bytes. The frame's digest is compared before the decompressor
// reads the frame, and the chunk's digest afterwards; on failure `chunk` must not be used. Returns
// CHUNKS_OK, CHUNKS_NO_MEMORY, or an error from CHUNKS_FRAME_DIGEST to CHUNKS_DIGEST.
ChunkResult restore_chunk(ChunkReader& reader, const ChunkEntry& entry, std::span<const char> frame,
                          std::span<char> chunk);

// Makes frames. Not for use by several threads at a time.
struct ChunkWriter {
    OwnedChunkHash hash;
    std::unique_ptr<ZSTD_CCtx_s, CompressorDeleter> compressor;
};

// Returns CHUNKS_OK or CHUNKS_NO_MEMORY.
ChunkResult make_chunk_writer(ChunkWriter& writer);

// Writes the frame of a chunk, which has 1 to CHUNK_SIZE_MAX bytes, to `frame`, which has room for
// FRAME_SIZE_MAX bytes, and sets the entry. Returns CHUNKS_OK or CHUNKS_NO_MEMORY.
ChunkResult make_frame(ChunkWriter& writer, std::span<const char> chunk, std::span<char> frame,
                       ChunkEntry& entry);

#endif  // CHUNKS_FRAME_H
