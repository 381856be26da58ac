// The digests of chunks and frames: the first bytes of a SHA-256.
#ifndef CHUNKS_DIGEST_H
#define CHUNKS_DIGEST_H

#include <string.h>

#include <array>
#include <span>

#include "chunks/frame.h"

constexpr size_t CHUNKS_SHA256_SIZE = 32;

// Returns null when memory is short.
OwnedChunkHash make_chunk_hash();

// Computes the SHA-256 of the bytes. Returns CHUNKS_OK or CHUNKS_NO_MEMORY.
ChunkResult digest_bytes(const OwnedChunkHash& hash, std::span<const char> bytes,
                         std::array<unsigned char, CHUNKS_SHA256_SIZE>& sha256);

// Sets `start` to the first bytes of the SHA-256. Returns as digest_bytes() does.
template <typename Start>
ChunkResult start_of_digest(const OwnedChunkHash& hash, std::span<const char> bytes, Start& start) {
    std::array<unsigned char, CHUNKS_SHA256_SIZE> sha256 = {};
    const ChunkResult result = digest_bytes(hash, bytes, sha256);
    memcpy(start.data(), sha256.data(), start.size());
    return result;
}

#endif  // CHUNKS_DIGEST_H
