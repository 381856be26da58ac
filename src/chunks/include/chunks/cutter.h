// Cuts a stream of bytes into chunks. Where a chunk ends depends only on the bytes before its end,
// so that an insertion into an image changes the chunks around it and leaves those that follow as
// they are. The method is that of Xia et al., "FastCDC: a Fast and Efficient Content-Defined
// Chunking Approach for Data Deduplication", USENIX ATC 2016: a gear hash, a smallest chunk within
// which no end is searched, and normalised sizes.
//
// For each byte of a chunk, hash = 2 * hash + GEAR[byte] modulo 2^64; so the hash depends on the
// last 64 bytes. The chunk ends after the byte with which it has s bytes if
//     CHUNK_SIZE_MIN <= s < CHUNK_SIZE_NORMAL and hash < 2^64 / CHUNK_ODDS_BEFORE, or
//     CHUNK_SIZE_NORMAL <= s < CHUNK_SIZE_MAX and hash < 2^64 / CHUNK_ODDS_AFTER, or
//     s = CHUNK_SIZE_MAX,
// and at the end of the stream. GEAR[0] to GEAR[255] are the first numbers that the generator
// SplitMix64 returns from the state 0.
#ifndef CHUNKS_CUTTER_H
#define CHUNKS_CUTTER_H

#include <stddef.h>
#include <stdint.h>

#include <span>

// In bytes. On real images the mean is 6.5 KB; docs/signing.md has the measurements of other sizes.
// An index with chunks beyond the limits is refused; only the last chunk may be smaller.
constexpr uint32_t CHUNK_SIZE_MIN = 2048;
constexpr uint32_t CHUNK_SIZE_NORMAL = 6144;
constexpr uint32_t CHUNK_SIZE_MAX = 32768;
// One of so many bytes ends a chunk, before and after its normal size.
constexpr uint32_t CHUNK_ODDS_BEFORE = 8192;
constexpr uint32_t CHUNK_ODDS_AFTER = 2048;

// The state within the current chunk. A new one begins a stream.
struct ChunkCutter {
    uint64_t hash = 0;
    uint32_t size = 0;  // bytes of the current chunk so far
};

// Takes the next bytes of the stream. Returns how many of them belong to the current chunk, and
// sets `complete` to whether it ends with the last of these; the next call then begins another
// chunk. Otherwise all bytes belong to it. The chunk at the end of the stream is the rest, if there
// is one.
size_t cut_chunk(ChunkCutter& cutter, std::span<const char> bytes, bool& complete);

#endif  // CHUNKS_CUTTER_H
