#include "mtd_table.h"

#include <charconv>

namespace {

// Returns the decimal number between the first 'd' and the first ':' of the line, or 0.
int device_number(std::string_view line) {
    const size_t letter = line.find('d');
    const size_t colon = line.find(':');
    int number = 0;
    if (letter != std::string_view::npos && colon != std::string_view::npos && letter < colon) {
        std::from_chars(line.data() + letter + 1, line.data() + colon, number);
    }
    return number;
}

}  // namespace

std::optional<MtdTableEntry> parse_mtd_table_line(std::string_view line) {
    const size_t first = line.find('"');
    const size_t last = line.rfind('"');
    if (first == last) {
        return std::nullopt;
    }
    return MtdTableEntry{{line.data() + first + 1, last - first - 1}, device_number(line)};
}
