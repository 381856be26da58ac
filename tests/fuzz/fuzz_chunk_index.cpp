// Fuzzes the index of a chunked image. It must be refused with an error of the index, or its
// entries must be within the limits, add up, and be written again as the same bytes. The sizes of
// image and frames are those of its head, as a maker would sign them.
#include <string>

#include "chunks/index.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    uint64_t sizes[2] = {};
    if (size >= CHUNK_INDEX_HEAD_SIZE) {
        memcpy(sizes, data + CHUNK_INDEX_HEAD_SIZE - sizeof(sizes), sizeof(sizes));
    }
    ChunkIndex index;
    uint32_t wrong = 0;
    const ChunkResult result = read_chunk_index(input, sizes[0], sizes[1], index, wrong);
    if (result != CHUNKS_OK) {
        fuzz_expect(result >= CHUNKS_NOT_AN_INDEX && result <= CHUNKS_FILE_SUM);
        fuzz_expect(index.count == 0 && chunk_result_text(result)[0] != '\0');
        return 0;
    }
    fuzz_expect(size <= chunk_index_size_max(sizes[0]));
    const auto head = format_chunk_index_head(index);
    std::string again(head.begin(), head.end());
    uint64_t image = 0;
    uint64_t frames = 0;
    for (uint32_t i = 0; i < index.count; ++i) {
        const ChunkEntry entry = chunk_entry(index, i);
        fuzz_expect(entry.size > 0 && entry.size <= CHUNK_SIZE_MAX);
        fuzz_expect(entry.frameSize > 0 && entry.frameSize <= FRAME_SIZE_MAX);
        image += entry.size;
        frames += entry.frameSize;
        const auto bytes = format_chunk_entry(entry);
        again.append(bytes.begin(), bytes.end());
    }
    fuzz_expect(image == sizes[0] && frames == sizes[1] && again == input);
    return 0;
}
