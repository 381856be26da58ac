// Fuzzes the parser of lines of "/proc/mtd".
#include <string>

#include "fuzz_input.h"
#include "mtd_table.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    const std::optional<MtdTableEntry> entry = parse_mtd_table_line(line);
    if (entry) {
        const char* const name = entry->name.data();
        fuzz_expect(name > line.data() && name + entry->name.size() < line.data() + line.size());
        fuzz_expect(name[-1] == '"' && name[entry->name.size()] == '"');
    }
    return 0;
}
