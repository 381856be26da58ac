// Makes chunked images as `otactl pack files --chunked` does, in memory.
#ifndef TESTS_SUPPORT_CHUNKED_IMAGES_H
#define TESTS_SUPPORT_CHUNKED_IMAGES_H

#include "files.h"

struct PackedImage {
    std::string index;
    std::string frames;
};

// Cuts the image, which arrives in pieces of random sizes.
std::vector<std::string> chunks_of(const std::string& image, size_t pieceMax = 50000);

PackedImage pack(const std::string& image);

#endif  // TESTS_SUPPORT_CHUNKED_IMAGES_H
