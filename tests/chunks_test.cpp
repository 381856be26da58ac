// Chunked images: images of all sizes and contents, and edits of them.

#include "chunked_images.h"
#include "chunks/frame.h"

namespace {

std::string restore(const PackedImage& packed, size_t size) {
    ChunkReader reader;
    ChunkIndex index;
    uint32_t wrong = 0;
    EXPECT_EQ(CHUNKS_OK, make_chunk_reader(reader));
    EXPECT_EQ(CHUNKS_OK, read_chunk_index(packed.index, size, packed.frames.size(), index, wrong));
    std::string image;
    size_t at = 0;
    for (uint32_t i = 0; i < index.count; ++i) {
        const ChunkEntry entry = chunk_entry(index, i);
        std::string chunk(entry.size, '\0');
        EXPECT_EQ(CHUNKS_OK,
                  restore_chunk(reader, entry, {&packed.frames[at], entry.frameSize}, chunk));
        image += chunk;
        at += entry.frameSize;
    }
    return image;
}

TEST(Chunks, RestoreImagesOfAllSizesAndContents) {
    const std::string random = pattern_bytes(300000, 1);
    for (const size_t size :
         {0U, 1U, 63U, 64U, CHUNK_SIZE_MIN - 1, CHUNK_SIZE_MIN, CHUNK_SIZE_MIN + 1,
          CHUNK_SIZE_MAX - 1, CHUNK_SIZE_MAX, CHUNK_SIZE_MAX + 1, 8 * CHUNK_SIZE_MAX, 300000U}) {
        for (const std::string& image :
             {random.substr(0, size), std::string(size, '\0'), std::string(size, '\xff')}) {
            EXPECT_TRUE(restore(pack(image), size) == image) << size;
            EXPECT_TRUE(chunks_of(image, 100) == chunks_of(image)) << size;
        }
    }
}

// What a camera would have to fetch: the chunks that it does not have.
size_t missing_bytes(const std::vector<std::string>& had, const std::string& image) {
    const std::set<std::string> known(had.begin(), had.end());
    size_t missing = 0;
    for (const std::string& chunk : chunks_of(image)) {
        missing += known.contains(chunk) ? 0 : chunk.size();
    }
    return missing;
}

TEST(Chunks, OnlyThoseAroundAnEditChange) {
    const std::string program = read_file("/proc/self/exe").substr(0, 1000000);
    const std::string image = pattern_bytes(1000000, 2) + program;
    const std::vector<std::string> had = chunks_of(image);
    EXPECT_EQ(0U, missing_bytes(had, image));
    std::minstd_rand random(3);
    const auto below = [&random](size_t most) { return random() % most; };
    for (int i = 0; i < 30; ++i) {
        std::string edited = image;
        size_t fresh = 0;  // bytes that the edits brought in
        const size_t edits = 1 + below(4);
        for (size_t edit = 0; edit < edits; ++edit) {
            const size_t at = below(image.size() - 200000);
            const size_t size = 1 + below(100000);
            const std::string part = edited.substr(at, size);
            switch (below(3)) {
                case 0:
                    edited.insert(at, pattern_bytes(size, static_cast<unsigned>(i)));
                    fresh += size;
                    break;
                case 1:
                    edited.erase(at, size);
                    break;
                default:
                    edited.erase(at, size);
                    edited.insert(below(edited.size()), part);
            }
        }
        // Each edit changes the chunks at its ends: of a move there are three.
        EXPECT_LE(missing_bytes(had, edited), fresh + edits * 3 * 2 * CHUNK_SIZE_MAX) << i;
        EXPECT_TRUE(i != 0 || restore(pack(edited), edited.size()) == edited);
    }
}

}  // namespace
