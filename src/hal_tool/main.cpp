// hal_tool: calls one operation of the hardware modules, for bringing up a new board.
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

#include "base/unique_fd.h"
#include "cli/command_line.h"
#include "hal/axera_ota.h"
#include "hal/flash_mmc.h"
#include "hal/flash_mtd.h"
#include "hal/t31_led.h"
#include "pal/pal_led.h"
#include "pal/pal_nv.h"
#include "pal/pal_ota.h"

namespace {

constexpr char HAL_TOOL[] = "hal_tool";

using Words = std::vector<std::string>;  // the arguments after the operation's name

const std::map<std::string, LedType> COLOURS{
    {"red", LED_TYPE_RED},           {"green", LED_TYPE_GREEN},   {"blue", LED_TYPE_BLUE},
    {"red-blue", LED_TYPE_RED_BLUE}, {"robust", LED_TYPE_ROBUST}, {"all", LED_TYPE_ALL}};

// Converts an argument to the type of the operation's parameter.
template <typename Parameter>
Parameter argument(const std::string& word) {
    if constexpr (std::is_same_v<Parameter, const char*>) {
        return word.c_str();
    } else if constexpr (std::is_same_v<Parameter, LedType>) {
        if (!COLOURS.contains(word)) {
            throw CLI::ValidationError(word,
                                       "not a colour (red, green, blue, red-blue, robust, all)");
        }
        return COLOURS.at(word);
    } else {
        static_assert(std::is_integral_v<Parameter>, "words are numbers, names or colours");
        Parameter value = 0;
        if (!CLI::detail::lexical_cast(word, value)) {
            throw CLI::ValidationError(word, "not a number in the operation's range");
        }
        return value;
    }
}

// Calls the operation with the words as arguments. The parser has checked their number.
template <typename... Parameters>
int call_with(int (*operation)(Parameters...), const Words& words) {
    [[maybe_unused]] auto word = words.begin();
    return std::apply(operation, std::tuple<Parameters...>{argument<Parameters>(*word++)...});
}

template <auto OPERATION>
int call(const Words& words) {
    return call_with(OPERATION, words);
}

template <typename... Parameters>
constexpr size_t parameters_of(int (* /*operation*/)(Parameters...)) {
    return sizeof...(Parameters);
}

// Throws on a write error, so that an incomplete copy of flash is not mistaken for a complete one.
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

// Runs one operation of the LED module for some time, and then stops the module. The GPIO lines
// keep their last state.
template <typename Slot, typename... Arguments>
int run_led(uint32_t milliseconds, Slot slot, Arguments... arguments) {
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
    return run_led(milliseconds, T31_LED_INTERFACE.enable, type, ENABLE, 0);
}

int led_blink(LedType type, uint32_t periodMs, uint32_t milliseconds) {
    const LedBlinkCfg config = {.periodMs = periodMs};
    return run_led(milliseconds, T31_LED_INTERFACE.blink, type, &config, 0);
}

// Prints the content of a partition, read in the same way as for the comparison after an upgrade.
// Returns -1 if the partition was opened but cannot be read to its end.
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
    const char* words;  // a name for each parameter, separated by spaces
    const char* help;
    size_t parameters;
    int (*call)(const Words& words);
};

template <auto OPERATION>
constexpr Command command(const char* name, const char* words, const char* help) {
    return {name, words, help, parameters_of(OPERATION), call<OPERATION>};
}

using Nv = HalNvInterface;
constexpr Command COMMANDS[] = {
    command<flash_mtd_erase_partition>("mtd-erase", "NAME", "Erase a partition of raw flash"),
    command<flash_mtd_write_partition>("mtd-write", "NAME IMAGE",
                                       "Write an image to erased raw flash"),
    command<flash_mtd_write_partition_by_offset>(
        "mtd-write-range", "NAME IMAGE OFFSET SIZE",
        "Write a part of a file to erased raw flash and compare"),
    command<flash_mtd_erase_write_partion>("mtd-erase-write", "NAME IMAGE",
                                           "Erase raw flash and write an image"),
    command<flash_mtd_erase_write_partition_by_offset>(
        "mtd-erase-write-range", "NAME IMAGE OFFSET SIZE",
        "Erase raw flash, write a part of a file and compare"),
    command<flash_mmc_erase_partition>("mmc-erase", "NAME", "Fill an eMMC partition with zeros"),
    command<flash_mmc_write_partition>("mmc-write", "NAME IMAGE",
                                       "Write an image to an eMMC partition"),
    command<flash_mmc_write_partition_by_offset>("mmc-write-range", "NAME IMAGE OFFSET SIZE",
                                                 "Write a part of a file to an eMMC partition"),
    command<flash_mmc_erase_write_partion>("mmc-erase-write", "NAME IMAGE",
                                           "Zero an eMMC partition and write an image"),
    command<flash_mmc_erase_write_partion_by_offset>(
        "mmc-erase-write-range", "NAME IMAGE START END",
        "Zero an eMMC partition and write a part of a file"),
    command<nv_read<&Nv::userRead>>("nv-read-user", "OFFSET SIZE", "Read user data"),
    command<nv_write<&Nv::userWrite>>("nv-write-user", "OFFSET", "Write user data"),
    command<nv_read<&Nv::factoryRead>>("nv-read-factory", "OFFSET SIZE", "Read factory data"),
    command<nv_write<&Nv::factoryWrite>>("nv-write-factory", "OFFSET", "Write factory data"),
    command<nv_read<&Nv::recordRead>>("nv-read-record", "OFFSET SIZE", "Read record data"),
    command<nv_write<&Nv::recordWrite>>("nv-write-record", "OFFSET", "Write record data"),
    command<nv_ask<&Nv::enterRecovery>>("nv-enter-recovery", "",
                                        "Make the boot loader start the recovery system"),
    command<nv_ask<&Nv::exitRecovery>>("nv-exit-recovery", "",
                                       "Make the boot loader start the ordinary system"),
    command<led_enable<1>>("led-on", "COLOUR MS", "Light the LED steadily"),
    command<led_enable<0>>("led-off", "COLOUR MS",
                           "Switch the LED off (with \"all\"; a single colour is switched on)"),
    command<led_blink>("led-blink", "COLOUR PERIOD MS", "Make the LED blink"),
    command<ota_erase>("ota-erase", "NAME STORAGE", "Erase a partition through the upgrade module"),
    command<PAL_NV_Init>("pal-nv-init", "", "Read the factory data as the service does"),
    command<PAL_OTA_Init>("pal-ota-init", "", "Start the upgrade module"),
    command<pal_ota_read>("pal-ota-read", "NAME STORAGE",
                          "Read a partition as the service compares it"),
    command<PAL_OTA_Upgrade>("pal-ota-upgrade", "TYPE NAME IMAGE STORAGE",
                             "Write an image as the service does"),
    command<PAL_OTA_UpgradeByOffset>("pal-ota-upgrade-range", "TYPE NAME IMAGE OFFSET SIZE STORAGE",
                                     "Write a part of a package as the service does"),
};

constexpr size_t count_words(std::string_view words) {
    return words.empty() ? 0 : 1 + static_cast<size_t>(std::count(words.begin(), words.end(), ' '));
}
// call_with() reads as many words as there are parameters, so too few names would read past the
// end.
static_assert(std::ranges::all_of(COMMANDS,
                                  [](const Command& row) {
                                      return count_words(row.words) == row.parameters;
                                  }),
              "each parameter of an operation needs one word");

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
        const std::string words = row.words;
        CLI::App* const command =
            app.add_subcommand(row.name, words + (words.empty() ? "" : ": ") + row.help);
        if (row.parameters != 0) {
            command->add_option(words, typed)
                ->required()
                ->expected(static_cast<int>(row.parameters));
        }
        // Called by the parser, so that an argument of the wrong type is reported as wrong use.
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
