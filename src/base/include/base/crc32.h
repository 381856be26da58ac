// The CRC-32 that gzip, zip and Ethernet use (reflected polynomial 0xEDB88320).
#ifndef BASE_CRC32_H
#define BASE_CRC32_H

#include <stdint.h>

#include <array>
#include <span>

namespace corvo {

constexpr std::array<uint32_t, 256> CRC32_TABLE = [] {
    std::array<uint32_t, 256> table = {};
    for (uint32_t byte = 0; byte < table.size(); ++byte) {
        uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value >> 1) ^ ((value & 1) != 0 ? 0xEDB88320U : 0U);
        }
        table[byte] = value;
    }
    return table;
}();

// Continues a CRC with more bytes. `crc` is the CRC of the preceding data, 0 if there is no such
// data. Returns the CRC of the preceding data followed by `bytes`.
constexpr uint32_t crc32(uint32_t crc, std::span<const char> bytes) {
    crc = ~crc;
    for (const char byte : bytes) {
        crc = (crc >> 8) ^ CRC32_TABLE[(crc ^ static_cast<unsigned char>(byte)) & 0xFF];
    }
    return ~crc;
}
static_assert(crc32(0, std::span("123456789", 9)) == 0xCBF43926);

}  // namespace corvo

#endif  // BASE_CRC32_H
