// The result of a procedure for chunks, and a message that explains it.
#ifndef CHUNKS_RESULT_H
#define CHUNKS_RESULT_H

#include <stdint.h>

enum ChunkResult : int32_t {
    CHUNKS_OK = 0,
    CHUNKS_NO_MEMORY = 1,
    // The index.
    CHUNKS_NOT_AN_INDEX = 2,      // too short, or without the magic number
    CHUNKS_OTHER_VERSION = 3,     // of a version that this program does not know
    CHUNKS_INDEX_SIZE = 4,        // its size does not fit the number of chunks
    CHUNKS_OTHER_IMAGE_SIZE = 5,  // for an image of another size than in the manifest
    CHUNKS_OTHER_FILE_SIZE = 6,   // for a file of frames of another size than in the manifest
    CHUNKS_CHUNK_SIZE = 7,        // a chunk is smaller or larger than allowed
    CHUNKS_FRAME_SIZE = 8,        // a frame is larger than allowed, or empty
    CHUNKS_IMAGE_SUM = 9,         // the chunks are not together as large as the image
    CHUNKS_FILE_SUM = 10,         // the frames are not together as large as their file
    // A chunk or its frame.
    CHUNKS_FRAME_DIGEST = 11,   // the frame is not the one of the index
    CHUNKS_FRAME_FORM = 12,     // not one frame of one segment without a dictionary
    CHUNKS_FRAME_CONTENT = 13,  // the frame does not contain as many bytes as the index states
    CHUNKS_FRAME_BROKEN = 14,   // the frame cannot be decompressed
    CHUNKS_DIGEST = 15,         // the chunk is not the one of the index
};

// Returns the message: a part of a sentence in English, for example "the frame is not the one of
// the index".
const char* chunk_result_text(ChunkResult result);

#endif  // CHUNKS_RESULT_H
