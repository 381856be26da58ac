// Reads values from a fuzz input, from the beginning to the end.
#ifndef FUZZ_FUZZ_INPUT_H
#define FUZZ_FUZZ_INPUT_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

struct FuzzInput {
    const uint8_t* data;
    size_t size;

    uint8_t byte() {
        if (size == 0) {
            return 0;
        }
        --size;
        return *data++;
    }
    // Copies the remaining bytes, at most `wanted`, and returns their number.
    size_t bytes(void* to, size_t wanted) {
        const size_t taken = std::min(wanted, size);
        memcpy(to, data, taken);
        data += taken;
        size -= taken;
        return taken;
    }
};

// Ends the run with an error if the condition does not hold.
inline void fuzz_expect(bool condition) {
    if (!condition) {
        abort();
    }
}

#endif  // FUZZ_FUZZ_INPUT_H
