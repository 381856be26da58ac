#include "agent/chunk_sources.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <numeric>

#include "package/files.h"

namespace {

constexpr uint32_t OFFSET_BITS = 30;  // of a place; the bits above are the number of the source

struct Search {
    const ChunkIndex& index;
    uint32_t first;
    ChunkReader& reader;
    const std::atomic<bool>& stop;
    std::vector<ChunkPlace>& places;
    std::vector<uint32_t> byDigest =
        {};                // numbers of the searched chunks, in order of their digests
    uint32_t missing = 0;  // how many of them are not found
};

ChunkPlace place_of(size_t source, uint64_t offset) {
    return static_cast<ChunkPlace>(source << OFFSET_BITS | offset);
}

// Whether a chunk lies in the part of a source that a place can name.
bool has_place(uint64_t offset, uint32_t size) {
    return offset + size < CHUNK_SOURCE_SIZE_MAX;
}

// Records that a source has bytes with this digest. An image may contain the same chunk many times.
void note_chunk(Search& search, const ChunkDigest& digest, uint32_t size, ChunkPlace place) {
    const auto digest_of = [&search](uint32_t number) {
        return chunk_entry(search.index, number).digest;
    };
    auto next = std::ranges::lower_bound(search.byDigest, digest, {}, digest_of);
    for (; next != search.byDigest.end() && search.places[*next] == NOT_ON_CAMERA; ++next) {
        const ChunkEntry entry = chunk_entry(search.index, *next);
        if (entry.digest != digest || entry.size != size) {
            return;
        }
        search.places[*next] = place;
        --search.missing;
    }
}

// Cuts the source and hashes its chunks. A failure to read it ends it.
void cut_source(Search& search, const ChunkSource& source, size_t number) {
    if (lseek(source.file.get(), 0, SEEK_SET) != 0) {
        return;
    }
    const auto chunk = std::make_unique_for_overwrite<char[]>(CHUNK_SIZE_MAX);
    ChunkCutter cutter;
    uint64_t begin = 0;  // of the chunk
    uint32_t size = 0;   // bytes of it so far
    const auto end_chunk = [&] {
        ChunkDigest digest = {};
        if (size > 0 && has_place(begin, size) &&
            digest_chunk(search.reader, {chunk.get(), size}, digest) == CHUNKS_OK) {
            note_chunk(search, digest, size, place_of(number, begin));
        }
        begin += size;
        size = 0;
    };
    (void)read_pieces(source.file.get(), CHUNK_SOURCE_SIZE_MAX, [&](std::span<const char> bytes) {
        while (!bytes.empty()) {
            bool complete = false;
            const size_t taken = cut_chunk(cutter, bytes, complete);
            memcpy(chunk.get() + size, bytes.data(), taken);
            size += static_cast<uint32_t>(taken);
            bytes = bytes.subspan(taken);
            if (complete) {
                end_chunk();
            }
        }
        return search.missing > 0 && !search.stop;
    });
    end_chunk();
}

// Reads a stored index in pieces, because two indexes at a time would take the memory of two.
// Nothing has to be verified: wrong places are found when chunks are copied.
void read_stored_index(Search& search, const ChunkSource& source, size_t number) {
    const corvo::UniqueFd file(
        open(source.storedIndex.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    std::array<char, CHUNK_ENTRY_SIZE> entry = {};
    size_t filled = 0;
    uint64_t offset = 0;
    bool isHead = true;
    const auto end_entry = [&] {
        if (!std::exchange(isHead, false)) {
            const ChunkEntry stored = chunk_entry({.entries = entry, .count = 1}, 0);
            if (has_place(offset, stored.size)) {
                note_chunk(search, stored.digest, stored.size, place_of(number, offset));
            }
            offset += stored.size;
        }
        filled = 0;
    };
    static_assert(CHUNK_INDEX_HEAD_SIZE == CHUNK_ENTRY_SIZE);
    (void)read_pieces(file.get(), WHOLE_FILE, [&](std::span<const char> bytes) {
        while (!bytes.empty()) {
            const size_t taken = std::min(bytes.size(), entry.size() - filled);
            memcpy(entry.data() + filled, bytes.data(), taken);
            filled += taken;
            bytes = bytes.subspan(taken);
            if (filled == entry.size()) {
                end_entry();
            }
        }
        return search.missing > 0;
    });
}

// In a partition that is larger than the image, the image's last chunk does not end where the
// partition is cut. It is searched after the chunk before it.
void find_last_chunk(Search& search, std::vector<ChunkSource>& sources) {
    const uint32_t last = search.index.count - 1;
    if (search.places[last] != NOT_ON_CAMERA || last == search.first ||
        search.places[last - 1] == NOT_ON_CAMERA) {
        return;
    }
    const ChunkEntry entry = chunk_entry(search.index, last);
    const ChunkPlace place = search.places[last - 1] + chunk_entry(search.index, last - 1).size;
    const auto chunk = std::make_unique_for_overwrite<char[]>(entry.size);
    if (has_place(place % CHUNK_SOURCE_SIZE_MAX, entry.size) &&
        read_place(sources, place, {chunk.get(), entry.size}) &&
        check_chunk(search.reader, entry, {chunk.get(), entry.size}) == CHUNKS_OK) {
        search.places[last] = place;
    }
}

}  // namespace

void find_chunks(std::vector<ChunkSource>& sources, const ChunkIndex& index, uint32_t first,
                 ChunkReader& reader, const std::atomic<bool>& stop,
                 std::vector<ChunkPlace>& places) {
    places.assign(index.count, NOT_ON_CAMERA);
    Search search = {.index = index,
                     .first = first,
                     .reader = reader,
                     .stop = stop,
                     .places = places,
                     .missing = index.count - first};
    if (search.missing == 0) {
        return;
    }
    search.byDigest.resize(search.missing);
    std::iota(search.byDigest.begin(), search.byDigest.end(), first);
    std::ranges::sort(search.byDigest, {},
                      [&index](uint32_t number) { return chunk_entry(index, number).digest; });
    for (size_t i = 0; i < std::min(sources.size(), CHUNK_SOURCES_MAX); ++i) {
        if (search.missing == 0 || stop) {
            break;
        }
        const ChunkSource& source = sources[i];
        if (source.storedIndex.empty()) {
            cut_source(search, source, i);
        } else {
            read_stored_index(search, source, i);
        }
    }
    find_last_chunk(search, sources);
}

ChunkSource& source_of(std::vector<ChunkSource>& sources, ChunkPlace place) {
    return sources[place >> OFFSET_BITS];
}

bool read_place(std::vector<ChunkSource>& sources, ChunkPlace place, std::span<char> bytes) {
    const int file = source_of(sources, place).file.get();
    off_t offset = place % CHUNK_SOURCE_SIZE_MAX;
    while (!bytes.empty()) {
        const ssize_t taken = pread(file, bytes.data(), bytes.size(), offset);
        if (taken <= 0) {
            return false;
        }
        offset += taken;
        bytes = bytes.subspan(static_cast<size_t>(taken));
    }
    return true;
}
