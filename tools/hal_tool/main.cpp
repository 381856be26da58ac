// hal_tool: calls one operation of the hardware modules, for whoever brings up a new board.
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

#include "base/unique_fd.h"
#include "command_line.h"
#include "hal/axera_ota.h"
#include "hal/flash_mmc.h"
#include "hal/flash_mtd.h"
#include "hal/nv.h"
#include "hal/t31_led.h"
#include "pal/pal_led.h"
#include "pal/pal_nv.h"
#include "pal/pal_ota.h"

namespace {

constexpr char HAL_TOOL[] = "hal_tool";

using Words = std::vector<std::string>;  // what is typed behind the operation

const std::map<std::string, LedType> COLOURS{
    {"red", LED_TYPE_RED},           {"green", LED_TYPE_GREEN},   {"blue", LED_TYPE_BLUE},
    {"red-blue", LED_TYPE_RED_BLUE}, {"robust", LED_TYPE_ROBUST}, {"all", LED_TYPE_ALL}};

// A word as the type of the operation's parameter.
template <typename Parameter>
Parameter argument(const std::string& word) {
    if constexpr (std::is_same_v<Parameter, const char*>) {
        return word.c_str();
    } else if constexpr (std::is_same_v<Parameter, LedType>) {
        if (!COLOURS.contains(word)) {
            throw CLI::ValidationError(word, "no colour (red, green, blue, red-blue, robust, all)");
        }
        return COLOURS.at(word);
    } else {
        Parameter value = 0;
        if (!CLI::detail::lexical_cast(word, value)) {
            throw CLI::ValidationError(word, "not a number of the operation's range");
        }
        return value;
    }
}

template <typename... Parameters>
int call_with(int (*operation)(Parameters...), const Words& words) {
    [[maybe_unused]] auto word = words.begin();
    return std::apply(operation, std::tuple<Parameters...>{argument<Parameters>(*word++)...});
}

template <auto OPERATION>
int call(const Words& words) {
    return call_with(OPERATION, words);
}

// A copy of flash that is not whole must not look like one.
void print_bytes(const char* bytes, size_t count) {
    if (fwrite(bytes, 1, count, stdout) != count || fflush(stdout) != 0) {
        throw std::runtime_error("cannot write what was read to standard output");
    }
}

template <auto SLOT>
int nv_read(int32_t offset, uint32_t size) {
    std::vector<char> bytes(size);
    const int32_t n = (NV_INTERFACE.*SLOT)(bytes.data(), offset, size);
    print_bytes(bytes.data(), static_cast<size_t>(std::max(n, 0)));
    return n;
}

template <auto SLOT>
int nv_write(int32_t offset) {
    const std::vector<char> bytes{std::istreambuf_iterator<char>(std::cin), {}};
    return (NV_INTERFACE.*SLOT)(bytes.data(), offset, static_cast<uint32_t>(bytes.size()));
}

template <auto SLOT>
int nv_ask() {
    return (NV_INTERFACE.*SLOT)();
}

// Lets the LED module do something for a while; the lines keep what it leaves.
template <typename Slot, typename... Arguments>
int led_play(uint32_t milliseconds, Slot slot, Arguments... arguments) {
    int result = PAL_LED_Init();
    if (result == PAL_OK) {
        result = slot(arguments...);
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        T31_LED_INTERFACE.deinit(0);
    }
    return result;
}

template <int32_t ENABLE>
int led_enable(LedType type, uint32_t milliseconds) {
    return led_play(milliseconds, T31_LED_INTERFACE.enable, type, ENABLE, 0);
}

int led_blink(LedType type, uint32_t periodMs, uint32_t milliseconds) {
    const LedBlinkCfg config = {.periodMs = periodMs};
    return led_play(milliseconds, T31_LED_INTERFACE.blink, type, &config, 0);
}

// Prints what the partition holds, as the upgrade compares it with an image. -1: it was opened but
// cannot be read to its end.
int pal_ota_read(const char* part, uint32_t storageType) {
    int fd = -1;
    const int32_t result = PAL_OTA_OpenPartition(part, 0, storageType, &fd);
    if (result != PAL_OK) {
        return result;
    }
    const corvo::UniqueFd partition(fd);
    char chunk[16384];
    ssize_t n = 0;
    while ((n = read(partition.get(), chunk, sizeof(chunk))) > 0) {
        print_bytes(chunk, static_cast<size_t>(n));
    }
    return n < 0 ? -1 : PAL_OK;
}

int ota_erase(const char* part, uint32_t storageType) {
    return AXERA_OTA_INTERFACE.erasePartition(part, storageType);
}

struct Command {
    const char* name;
    const char* arguments;  // a word for each parameter
    int (*call)(const Words& words);
};
using Nv = HalNvInterface;
constexpr Command COMMANDS[] = {
    {"mtd-erase", "NAME", call<flash_mtd_erase_partition>},
    {"mtd-write", "NAME IMAGE", call<flash_mtd_write_partition>},
    {"mtd-write-range", "NAME IMAGE OFFSET SIZE", call<flash_mtd_write_partition_by_offset>},
    {"mtd-erase-write", "NAME IMAGE", call<flash_mtd_erase_write_partion>},
    {"mtd-erase-write-range", "NAME IMAGE OFFSET SIZE",
     call<flash_mtd_erase_write_partition_by_offset>},
    {"mmc-erase", "NAME", call<flash_mmc_erase_partition>},
    {"mmc-write", "NAME IMAGE", call<flash_mmc_write_partition>},
    {"mmc-write-range", "NAME IMAGE OFFSET SIZE", call<flash_mmc_write_partition_by_offset>},
    {"mmc-erase-write", "NAME IMAGE", call<flash_mmc_erase_write_partion>},
    {"mmc-erase-write-range", "NAME IMAGE START END",
     call<flash_mmc_erase_write_partion_by_offset>},
    {"nv-read-user", "OFFSET SIZE", call<nv_read<&Nv::userRead>>},
    {"nv-write-user", "OFFSET", call<nv_write<&Nv::userWrite>>},
    {"nv-read-factory", "OFFSET SIZE", call<nv_read<&Nv::factoryRead>>},
    {"nv-write-factory", "OFFSET", call<nv_write<&Nv::factoryWrite>>},
    {"nv-read-record", "OFFSET SIZE", call<nv_read<&Nv::recordRead>>},
    {"nv-write-record", "OFFSET", call<nv_write<&Nv::recordWrite>>},
    {"nv-enter-recovery", "", call<nv_ask<&Nv::enterRecovery>>},
    {"nv-exit-recovery", "", call<nv_ask<&Nv::exitRecovery>>},
    {"led-on", "COLOUR MS", call<led_enable<1>>},
    {"led-off", "COLOUR MS", call<led_enable<0>>},
    {"led-blink", "COLOUR PERIOD MS", call<led_blink>},
    {"ota-erase", "NAME STORAGE", call<ota_erase>},
    {"pal-nv-init", "", call<PAL_NV_Init>},
    {"pal-ota-init", "", call<PAL_OTA_Init>},
    {"pal-ota-read", "NAME STORAGE", call<pal_ota_read>},
    {"pal-ota-upgrade", "TYPE NAME IMAGE STORAGE", call<PAL_OTA_Upgrade>},
    {"pal-ota-upgrade-range", "TYPE NAME IMAGE OFFSET SIZE STORAGE", call<PAL_OTA_UpgradeByOffset>},
};

int program(int argc, char** argv) {
    CLI::App app(
        "Calls one operation of the hardware modules and prints its lines and what it reads, "
        "then,\n"
        "on standard error, its result. Data for nv-write come from standard input. OFFSET, SIZE,\n"
        "START and END are bytes, MS and PERIOD milliseconds: how long the LED module runs and "
        "the\n"
        "period of a blink. STORAGE is 17 for raw flash, 33 for eMMC. The exit status is 0 when "
        "the\n"
        "operation was called, whatever its result.",
        HAL_TOOL);
    app.require_subcommand(1);
    Words typed;
    for (const Command& row : COMMANDS) {
        CLI::App* const command = app.add_subcommand(row.name, row.arguments);
        if (const std::string names = row.arguments; !names.empty()) {
            command->add_option(names, typed)
                ->required()
                ->expected(static_cast<int>(1 + std::count(names.begin(), names.end(), ' ')));
        }
        // Within the parser, so that a word that does not suit the operation is wrong use as well.
        command->callback([&typed, &row] {
            const int result = row.call(typed);
            fflush(stdout);
            fprintf(stderr, "result %d\n", result);
        });
    }
    return parse_command_line(app, argc, argv).value_or(EXIT_SUCCESS);
}

}  // namespace

int main(int argc, char** argv) {
    return run_guarded(HAL_TOOL, [&] { return program(argc, argv); });
}
