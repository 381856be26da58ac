// Fuzzes the frame of a chunk, which a maker has signed: its digest is that of the index. The first
// two bytes are the size of the chunk. The frame must be refused, or contain exactly the chunk.
// With another digest it must be refused before the decompressor reads it, and nothing may be
// written beyond the chunk.
#include <string>

#include "digest.h"
#include "fuzz_input.h"

namespace {

ChunkReader g_reader;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz_expect(make_chunk_reader(g_reader) == CHUNKS_OK);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input = {.data = data, .size = size};
    ChunkEntry entry;
    entry.size = input.byte();
    entry.size = 1U + (entry.size + 256U * input.byte()) % CHUNK_SIZE_MAX;
    const std::span<const char> frame(reinterpret_cast<const char*>(input.data), input.size);
    entry.frameSize = static_cast<uint32_t>(frame.size());
    // libzstd is not instrumented, so that the sanitizer does not find what it writes beyond the
    // chunk.
    const std::string after(64, 'z');
    std::string block = std::string(entry.size, '\0') + after;
    const std::span<char> chunk = std::span(block).first(entry.size);
    fuzz_expect(restore_chunk(g_reader, entry, frame, chunk) == CHUNKS_FRAME_DIGEST);
    fuzz_expect(start_of_digest(g_reader.hash, frame, entry.frameDigest) == CHUNKS_OK);
    const ChunkResult result = restore_chunk(g_reader, entry, frame, chunk);
    fuzz_expect(result >= CHUNKS_FRAME_FORM && result <= CHUNKS_DIGEST);
    fuzz_expect(block.ends_with(after));
    if (result == CHUNKS_DIGEST) {
        // It contains a chunk of this size, which is not the one of the index. Now it is.
        fuzz_expect(start_of_digest(g_reader.hash, chunk, entry.digest) == CHUNKS_OK);
        fuzz_expect(restore_chunk(g_reader, entry, frame, chunk) == CHUNKS_OK);
        fuzz_expect(check_chunk(g_reader, entry, chunk) == CHUNKS_OK);
    }
    return 0;
}
