// Parses the kernel's list of raw-flash partitions, "/proc/mtd" (drivers/mtd/mtdcore.c of the Linux
// sources). The list is a heading, followed by lines such as
//     mtd3: 00080000 00020000 "kernel"
#ifndef HAL_FLASH_MTD_TABLE_H
#define HAL_FLASH_MTD_TABLE_H

#include <optional>
#include <string_view>

struct MtdTableEntry {
    std::string_view name;  // text between the first and last quote of the line; refers to the line
    int number;             // the device's number; 0 when the line has no number
};

// Accepts any text. Returns the entry, or std::nullopt when the line contains no quoted name.
std::optional<MtdTableEntry> parse_mtd_table_line(std::string_view line);

#endif  // HAL_FLASH_MTD_TABLE_H
