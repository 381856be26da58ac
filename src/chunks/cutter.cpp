#include "chunks/cutter.h"

#include <algorithm>
#include <array>

namespace {

// The hash depends on this number of bytes; earlier ones have been shifted out.
constexpr uint32_t HASHED_BYTES = 64;

// SplitMix64 (Steele, Lea, Flood: "Fast Splittable Pseudorandom Number Generators", 2014).
constexpr std::array<uint64_t, 256> make_gear() {
    std::array<uint64_t, 256> gear = {};
    uint64_t state = 0;
    for (uint64_t& value : gear) {
        state += 0x9E3779B97F4A7C15;
        value = (state ^ (state >> 30U)) * 0xBF58476D1CE4E5B9;
        value = (value ^ (value >> 27U)) * 0x94D049BB133111EB;
        value ^= value >> 31U;
    }
    return gear;
}

constexpr std::array GEAR = make_gear();

struct Phase {
    uint32_t until;  // size of the chunk, in bytes, up to which the phase lasts
    uint64_t limit;  // a lower hash ends the chunk
};

constexpr uint64_t limit_of(uint32_t odds) {
    return UINT64_MAX / odds + 1;  // odds are powers of two
}

constexpr Phase PHASES[] = {{CHUNK_SIZE_MIN - 1, 0},
                            {CHUNK_SIZE_NORMAL - 1, limit_of(CHUNK_ODDS_BEFORE)},
                            {CHUNK_SIZE_MAX, limit_of(CHUNK_ODDS_AFTER)}};

}  // namespace

size_t cut_chunk(ChunkCutter& cutter, std::span<const char> bytes, bool& complete) {
    uint64_t hash = cutter.hash;
    uint32_t size = cutter.size;
    const auto room = static_cast<uint32_t>(std::min<size_t>(bytes.size(), CHUNK_SIZE_MAX - size));
    const uint32_t end = size + room;
    const char* next = bytes.data();
    const uint32_t skipped = std::min(end, std::max(size, CHUNK_SIZE_MIN - HASHED_BYTES)) - size;
    size += skipped;
    next += skipped;
    complete = false;
    for (const Phase& phase : PHASES) {
        const uint32_t until = std::min(phase.until, end);
        while (size < until && !complete) {
            hash = (hash << 1U) + GEAR[static_cast<unsigned char>(*next)];
            ++next;
            ++size;
            complete = hash < phase.limit;
        }
    }
    complete = complete || size == CHUNK_SIZE_MAX;
    cutter = complete ? ChunkCutter{} : ChunkCutter{.hash = hash, .size = size};
    return static_cast<size_t>(next - bytes.data());
}
