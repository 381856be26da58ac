// Owners for resources of the C library: heap blocks, streams and directory handles.
#ifndef BASE_OWNED_H
#define BASE_OWNED_H

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>

#include <memory>
#include <type_traits>

namespace corvo {

struct FreeDeleter {
    void operator()(void* block) const { free(block); }
};
struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};
struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

// A heap block that came from malloc() or calloc().
template <typename T>
using OwnedBlock = std::unique_ptr<T, FreeDeleter>;
using OwnedFile = std::unique_ptr<FILE, FileCloser>;
using OwnedDirectory = std::unique_ptr<DIR, DirectoryCloser>;

// Allocates a zero-filled record on the heap. Returns null when no memory is available.
template <typename T>
OwnedBlock<T> allocate_zeroed() {
    static_assert(std::is_trivially_destructible_v<T>, "free() runs no destructor");
    return OwnedBlock<T>(static_cast<T*>(calloc(1, sizeof(T))));
}

}  // namespace corvo

#endif  // BASE_OWNED_H
