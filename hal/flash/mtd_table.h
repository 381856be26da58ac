// The kernel's list of raw-flash partitions, "/proc/mtd" (drivers/mtd/mtdcore.c of the Linux
// sources): a heading, then lines such as
//     mtd3: 00080000 00020000 "kernel"
#ifndef HAL_FLASH_MTD_TABLE_H
#define HAL_FLASH_MTD_TABLE_H

#include <optional>
#include <string_view>

struct MtdTableEntry {
    std::string_view
        name;    // what stands between the line's first and last quote; a view of the line
    int number;  // the device's number; 0 when the line has none
};

// Takes any text. Returns the entry, or nothing when the line holds no quoted name.
std::optional<MtdTableEntry> parse_mtd_table_line(std::string_view line);

#endif  // HAL_FLASH_MTD_TABLE_H
