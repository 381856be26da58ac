// The index of a chunked image (the file NAME.chunks). All numbers are little endian.
//
//     offset  bytes
//          0      8  the magic number "corvochk"
//          8      4  the version, 1
//         12      4  the number n of chunks
//         16      8  the size of the image in bytes
//         24      8  the size of NAME.zst, the file of the frames, in bytes
//         32     32  the first chunk, and so on: n entries in the order of the image
//
// An entry:
//          0      2  the size of the chunk in bytes
//          2      2  the size of its frame in bytes
//          4     16  the first bytes of the SHA-256 of the chunk
//         20     12  the first bytes of the SHA-256 of the frame
//
// The chunks follow each other in the image, and the frames in NAME.zst, without gaps.
#ifndef CHUNKS_INDEX_H
#define CHUNKS_INDEX_H

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <span>

#include "chunks/cutter.h"
#include "chunks/result.h"

// 16 bytes identify a chunk, also among those that an attacker put into an image. 12 bytes
// protect the decompressor: to find a frame that has the digest of any of 65,536 frames takes 2^80
// attempts.
constexpr size_t CHUNK_DIGEST_SIZE = 16;
constexpr size_t FRAME_DIGEST_SIZE = 12;
constexpr size_t CHUNK_INDEX_HEAD_SIZE = 32;
constexpr size_t CHUNK_ENTRY_SIZE = 32;
// A frame is at most this number of bytes larger than its chunk.
constexpr uint32_t FRAME_OVERHEAD_MAX = 64;
constexpr uint32_t FRAME_SIZE_MAX = CHUNK_SIZE_MAX + FRAME_OVERHEAD_MAX;

using ChunkDigest = std::array<unsigned char, CHUNK_DIGEST_SIZE>;
using FrameDigest = std::array<unsigned char, FRAME_DIGEST_SIZE>;

struct ChunkEntry {
    uint32_t size = 0;       // bytes, 1 to CHUNK_SIZE_MAX
    uint32_t frameSize = 0;  // bytes, 1 to `size` + FRAME_OVERHEAD_MAX
    ChunkDigest digest = {};
    FrameDigest frameDigest = {};
};

// An index that read_chunk_index() has accepted. It refers to the bytes of the file and needs no
// other memory.
struct ChunkIndex {
    std::span<const char> entries;
    uint32_t count = 0;
    uint64_t imageSize = 0;   // bytes, the sum of the sizes of the chunks
    uint64_t framesSize = 0;  // bytes, the sum of the sizes of the frames
};

// The largest size in bytes that the index of an image of this size can have. It bounds the memory
// that an index takes.
constexpr uint64_t chunk_index_size_max(uint64_t imageSize) {
    return CHUNK_INDEX_HEAD_SIZE + (imageSize / CHUNK_SIZE_MIN + 1) * CHUNK_ENTRY_SIZE;
}

// Checks a whole index against the sizes in bytes of the image and of the frames that the manifest
// states, and sets `index`, which refers to `bytes`. Returns CHUNKS_OK, or the first error from
// CHUNKS_NOT_AN_INDEX to CHUNKS_FILE_SUM; `wrong` is then the number, from 0, of the chunk that the
// error concerns. `bytes` may be any bytes. Takes time in proportion to their number, and no
// memory.
ChunkResult read_chunk_index(std::span<const char> bytes, uint64_t imageSize, uint64_t framesSize,
                             ChunkIndex& index, uint32_t& wrong);

// Returns an entry; `number` is below index.count.
ChunkEntry chunk_entry(const ChunkIndex& index, uint32_t number);

// Return the bytes of the head and of one entry. Of `index` the entries are not used.
std::array<char, CHUNK_INDEX_HEAD_SIZE> format_chunk_index_head(const ChunkIndex& index);
std::array<char, CHUNK_ENTRY_SIZE> format_chunk_entry(const ChunkEntry& entry);

#endif  // CHUNKS_INDEX_H
