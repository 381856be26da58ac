#include "chunked_images.h"

#include "chunks/frame.h"

std::vector<std::string> chunks_of(const std::string& image, size_t pieceMax) {
    std::minstd_rand random(1);
    std::vector<std::string> chunks;
    ChunkCutter cutter;
    bool complete = true;
    for (size_t at = 0; at < image.size();) {
        const size_t piece = std::min<size_t>(1 + random() % pieceMax, image.size() - at);
        const size_t begin = at;
        while (at < begin + piece) {
            if (complete) {
                chunks.emplace_back();
            }
            const size_t taken = cut_chunk(cutter, {&image[at], begin + piece - at}, complete);
            chunks.back() += image.substr(at, taken);
            at += taken;
        }
    }
    return chunks;
}

PackedImage pack(const std::string& image) {
    ChunkWriter writer;
    EXPECT_EQ(CHUNKS_OK, make_chunk_writer(writer));
    PackedImage packed;
    ChunkIndex head = {.entries = {}, .imageSize = image.size()};
    for (const std::string& chunk : chunks_of(image)) {
        char frame[FRAME_SIZE_MAX];
        ChunkEntry entry;
        EXPECT_EQ(CHUNKS_OK, make_frame(writer, chunk, frame, entry));
        packed.frames.append(frame, entry.frameSize);
        const auto bytes = format_chunk_entry(entry);
        packed.index.append(bytes.data(), bytes.size());
        ++head.count;
    }
    head.framesSize = packed.frames.size();
    const auto bytes = format_chunk_index_head(head);
    packed.index.insert(0, bytes.data(), bytes.size());
    EXPECT_LE(packed.index.size(), chunk_index_size_max(image.size()));
    return packed;
}
