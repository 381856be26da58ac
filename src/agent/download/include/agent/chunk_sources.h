// Finds the chunks of an image in what the camera has already: partitions, and files that the
// settings name. A source is cut into chunks as the image was (chunks/cutter.h), and each chunk is
// hashed. If the index of a source's content was stored by an earlier download, only that index is
// read. In both cases a chunk is verified when it is copied, because the source may have changed.
#ifndef AGENT_CHUNK_SOURCES_H
#define AGENT_CHUNK_SOURCES_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <span>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "chunks/frame.h"
#include "chunks/index.h"

constexpr size_t CHUNK_SOURCES_MAX = 4;
// Chunks that end after this number of bytes of a source are not found.
constexpr uint32_t CHUNK_SOURCE_SIZE_MAX = 1U << 30U;

struct ChunkSource {
    corvo::UniqueFd file;  // a partition or a file, open for reading
    // Path of the stored index of its content; empty: the source is cut.
    std::string storedIndex = {};
    uint32_t differences = 0;  // chunks that were found in it, and then had changed
};

// Where a chunk is: its source and the offset in it, in one number. There is one for each chunk of
// an image, so its size matters.
using ChunkPlace = uint32_t;
constexpr ChunkPlace NOT_ON_CAMERA = UINT32_MAX;

// Searches the sources for the chunks of the index from number `first` on, and sets `places`, which
// gets an element for each chunk of the index. Of more than CHUNK_SOURCES_MAX sources the rest is
// ignored, and so is what cannot be read: it only has to be downloaded. `reader` is used for its
// digests. Ends early when `stop` becomes true. Needs 8 bytes of memory for each chunk, of which 4
// remain, and 128 KiB. Blocks as long as the sources are read.
void find_chunks(std::vector<ChunkSource>& sources, const ChunkIndex& index, uint32_t first,
                 ChunkReader& reader, const std::atomic<bool>& stop,
                 std::vector<ChunkPlace>& places);

// Returns the source of a place other than NOT_ON_CAMERA.
ChunkSource& source_of(std::vector<ChunkSource>& sources, ChunkPlace place);

// Reads the bytes at a place. Returns false when the source cannot be read, or ends before.
bool read_place(std::vector<ChunkSource>& sources, ChunkPlace place, std::span<char> bytes);

#endif  // AGENT_CHUNK_SOURCES_H
