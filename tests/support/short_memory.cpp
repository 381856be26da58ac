// Replaces the C library's allocation functions in a program. The first N allocations succeed and
// all others fail, where N is the environment variable ALLOCATIONS. Without the variable they are
// only counted; the count is written to /tmp/allocations.
#include <stdio.h>
#include <stdlib.h>

#include <atomic>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
}

namespace {

std::atomic<long> taken{0};
std::atomic<long> most{-1};

// Ends the shortage after the program's last steps, because coverage instrumentation allocates
// then.
void end_shortage() {
    const long all = taken;
    if (most.exchange(-1) < 0) {
        FILE* const file = fopen("/tmp/allocations", "w");
        fprintf(file, "%ld", all);
        fclose(file);
    }
}

__attribute__((constructor)) void begin_shortage() {
    const char* const text = getenv("ALLOCATIONS");
    atexit(end_shortage);
    taken = 0;
    most = text == nullptr ? -1 : atol(text);
}

bool may_take() {
    const long number = ++taken;
    return most < 0 || number <= most;
}

}  // namespace

extern "C" {

void* malloc(size_t size) {
    return may_take() ? __libc_malloc(size) : nullptr;
}

void* calloc(size_t nmemb, size_t size) {
    return may_take() ? __libc_calloc(nmemb, size) : nullptr;
}

void* realloc(void* ptr, size_t size) {
    return may_take() ? __libc_realloc(ptr, size) : nullptr;
}
}
