// Runs on the emulated board: the hardware modules against a real kernel's flash chips, partitions
// and GPIO lines. Prints one CHECK line per check; exit status 0 when all are well.
//
//   board_probe       expects what scripts/board.d/init has set up, the NAND simulator's built-in
//                     faults among it
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "base/unique_fd.h"
#include "hal/flash_mmc.h"
#include "hal/flash_mtd.h"
#include "hal/nv.h"
#include "hal/t31_led.h"
#include "pal/pal_led.h"
#include "pal/pal_nv.h"
#include "pal/pal_ota.h"
#include "pal_common/ota_types.h"

namespace {

constexpr size_t CHUNK = 16384;  // bytes, the drivers' copy unit
constexpr size_t NAND_PAGE = 2048;
constexpr char IMAGE[] = "/tmp/image";
constexpr uint32_t OTHER_MODULE = 12;

int failures = 0;

void check(const std::string& what, bool ok, const std::string& detail = "") {
    printf("CHECK %s: %s%s%s\n", ok ? "ok" : "FAIL", what.c_str(), detail.empty() ? "" : ", ",
           detail.c_str());
    fflush(stdout);
    failures += ok ? 0 : 1;
}

void check_code(const std::string& what, int got, int wanted) {
    check(what, got == wanted,
          "result " + std::to_string(got) + ", wanted " + std::to_string(wanted));
}

// Differs from place to place, so that a copy to the wrong place shows.
std::string pattern(size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    unsigned state = seed * 2654435761U + 1;
    for (char& byte : bytes) {
        state = state * 1103515245U + 12345U;
        byte = static_cast<char>(state >> 16);
    }
    return bytes;
}

void write_image(const std::string& bytes) {
    std::ofstream(IMAGE, std::ios::binary | std::ios::trunc) << bytes;
}

std::string read_text(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string read_from(const corvo::UniqueFd& fd, size_t size) {
    std::string bytes(size, '\0');
    size_t done = 0;
    while (done < size) {
        const ssize_t n = read(fd.get(), bytes.data() + done, size - done);
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    bytes.resize(done);
    return bytes;
}

std::string read_mtd(const char* part, size_t size) {
    return read_from(corvo::UniqueFd(flash_mtd_open(part, O_RDONLY)), size);
}

bool is_erased(const std::string& bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](char c) { return c == '\xff'; });
}

bool waits_for(const std::function<bool()>& condition, int limitMs) {
    for (int waited = 0; waited < limitMs; waited += 20) {
        if (condition()) {
            return true;
        }
        usleep(20000);
    }
    return false;
}

// --- the NOR chip: writes of any length, 4 KiB erase blocks
// ---------------------------------------

void nor_chip() {
    check_code("nor: erase", flash_mtd_erase_partition("spl"), 0);
    check("nor: an erased partition reads all ones", is_erased(read_mtd("spl", 65536)));

    const std::string whole = pattern(65536, 1);
    write_image(whole);
    check_code("nor: image of exactly the partition's size",
               flash_mtd_erase_write_partion("dtb", IMAGE), 0);
    check("nor: that image is on the chip", read_mtd("dtb", 70000) == whole);

    write_image(pattern(65537, 2));
    check_code("nor: image one byte larger than the partition",
               flash_mtd_write_partition("dtb", IMAGE), -1);
    check("nor: nothing of it is written", read_mtd("dtb", 65536) == whole);

    const std::string package = pattern(30000, 3);
    write_image(package);
    check_code("nor: odd range of a package, with read-back",
               flash_mtd_erase_write_partition_by_offset("spl", IMAGE, 1001, 20003), 0);
    const std::string spl = read_mtd("spl", 65536);
    check("nor: that range is on the chip", spl.substr(0, 20003) == package.substr(1001, 20003));
    check("nor: the rest stays erased", is_erased(spl.substr(20003)));
    check_code("nor: range longer than the package",
               flash_mtd_write_partition_by_offset("spl", IMAGE, 0, 30001), -23);
    write_image(pattern(66000, 4));
    check_code("nor: range longer than the partition",
               flash_mtd_write_partition_by_offset("spl", IMAGE, 0, 65537), -24);
    check_code("nor: unknown partition", flash_mtd_erase_partition("nosuch"), -1);
}

// --- the NAND simulator: whole pages of 2 KiB, faults at known places
// -----------------------------

void nand_chip() {
    const std::string image = pattern(10 * CHUNK + 3 * NAND_PAGE, 5);
    write_image(image);
    check_code("nand: image of whole pages", flash_mtd_erase_write_partion("system", IMAGE), 0);
    const std::string content = read_mtd("system", image.size() + NAND_PAGE);
    check("nand: that image is on the chip", content.substr(0, image.size()) == image);
    check("nand: the next page stays erased", is_erased(content.substr(image.size())));
    check_code("nand: range of whole pages, with read-back",
               flash_mtd_erase_write_partition_by_offset("system", IMAGE, 777, 5 * CHUNK), 0);
    check("nand: that range is on the chip",
          read_mtd("system", 5 * CHUNK) == image.substr(777, 5 * CHUNK));

    write_image(pattern(2 * CHUNK + 1001, 6));
    check_code("nand: image that ends within a page",
               flash_mtd_erase_write_partion("system", IMAGE), -1);
    check_code("nand: range that ends within a page",
               flash_mtd_erase_write_partition_by_offset("system", IMAGE, 0, 2 * CHUNK + 1001),
               -31);
}

void nand_faults() {
    write_image(pattern(4 * CHUNK, 7));
    check_code("nand: erase of a weak block, first time", flash_mtd_erase_partition("weakerase"),
               0);
    check_code("nand: erase of a weak block, when it is worn out",
               flash_mtd_erase_partition("weakerase"), -3);
    check_code("nand: whole image onto what cannot be erased",
               flash_mtd_erase_write_partion("weakerase", IMAGE), -3);

    // The page takes its first write and refuses the next ones.
    check_code("nand: range over a weak page, first time",
               flash_mtd_erase_write_partition_by_offset("weakwrite", IMAGE, 0, 4 * CHUNK), 0);
    check_code("nand: range over a weak page, when it is worn out",
               flash_mtd_erase_write_partition_by_offset("weakwrite", IMAGE, 0, 4 * CHUNK), -31);
    check_code("nand: whole image over a weak page",
               flash_mtd_erase_write_partion("weakwrite", IMAGE), -1);
    check_code(
        "nand: the same through the platform layer",
        PAL_OTA_UpgradeByOffset(OTHER_MODULE, "weakwrite", IMAGE, 0, 4 * CHUNK, STORAGE_TYPE_MTD),
        17);

    // Its reads yield the full count of wrong bytes: only the comparison shows them.
    check_code("nand: range over a page that does not hold its data",
               flash_mtd_erase_write_partition_by_offset("badread", IMAGE, 0, 4 * CHUNK), -33);
    check_code("nand: the whole-image copy, which does not read back, does not see it",
               flash_mtd_erase_write_partion("badread", IMAGE), 0);
}

// --- partitions on the card ----------------------------------------------------------------------

void nv_partitions() {
    const std::string user = pattern(1000, 8);
    std::string back(user.size(), '\0');
    check_code("nv: user data written", NV_INTERFACE.userWrite(user.data(), 300, 1000), 1000);
    check_code("nv: user data read", NV_INTERFACE.userRead(back.data(), 300, 1000), 1000);
    check("nv: user data is what was written", back == user);
    check_code("nv: record data written", NV_INTERFACE.recordWrite(user.data(), 64536, 1000), 1000);
    check_code("nv: a write beyond the first 64 KiB is refused",
               NV_INTERFACE.recordWrite(user.data(), 64537, 1000), -1);
    check_code("nv: the platform layer reads the factory data", PAL_NV_Init(), 0);
    std::string factory(1792, '\0');
    check_code("nv: factory data read", NV_INTERFACE.factoryRead(factory.data(), 0, 1792), 1792);
    check("nv: factory data is what the card holds",
          factory == read_text("/factory_data").substr(0, 1792));
    const int end = static_cast<int>(
        lseek(corvo::UniqueFd(flash_mmc_open("nv_user", O_RDONLY)).get(), 0, SEEK_END));
    check_code("nv: a read at the end of the partition is short",
               NV_INTERFACE.userRead(back.data(), end - 100, 1000), 100);

    std::string command = "boot-recovery";
    command.resize(32, '\0');
    const auto recovery = [] {
        const corvo::UniqueFd misc(flash_mmc_open("misc", O_RDONLY));
        lseek(misc.get(), 16384, SEEK_SET);
        return read_from(misc, 32);
    };
    check_code("nv: recovery asked for", NV_INTERFACE.enterRecovery(), 32);
    check("nv: the recovery command is in misc", recovery() == command);
    check_code("nv: recovery no longer asked for", NV_INTERFACE.exitRecovery(), 32);
    check("nv: the recovery command is taken back", recovery() == std::string(32, '\0'));
}

// --- the LED, read back through the kernel
// --------------------------------------------------------

void led_lines() {
    const auto line = [](int gpio) {
        return read_text("/sys/class/gpio/gpio" + std::to_string(gpio) + "/value");
    };
    const auto lines = [&line](const char* red, const char* blue) {
        return line(34) == red && line(35) == blue;
    };
    const auto becomes = [&lines](const char* red, const char* blue) {
        return waits_for([&] { return lines(red, blue); }, 2000);
    };
    check_code("led: the platform layer starts the worker", PAL_LED_Init(), 0);
    T31_LED_INTERFACE.enable(LED_TYPE_RED, 1, 0);
    check("led: red", becomes("1\n", "0\n"));
    check("led: the lines are outputs",
          read_text("/sys/class/gpio/gpio34/direction") == "out\n" &&
              read_text("/sys/class/gpio/gpio35/direction") == "out\n");
    T31_LED_INTERFACE.enable(LED_TYPE_BLUE, 1, 0);
    check("led: blue", becomes("0\n", "1\n"));
    T31_LED_INTERFACE.enable(LED_TYPE_ALL, 1, 0);
    check("led: all on", becomes("1\n", "1\n"));
    T31_LED_INTERFACE.enable(LED_TYPE_ALL, 0, 0);
    check("led: all off", becomes("0\n", "0\n"));
    const LedBlinkCfg fast = {.periodMs = 500};
    T31_LED_INTERFACE.blink(LED_TYPE_RED_BLUE, &fast, 0);
    check("led: red and blue in turn",
          becomes("1\n", "0\n") && becomes("0\n", "1\n") && becomes("1\n", "0\n"));
    T31_LED_INTERFACE.enable(LED_TYPE_ALL, 0, 0);
    check("led: blinking ends", becomes("0\n", "0\n"));
}

}  // namespace

int main() {
    check_code("the platform layer starts the upgrade module", PAL_OTA_Init(), 0);
    nor_chip();
    nand_chip();
    nand_faults();
    nv_partitions();
    led_lines();
    PAL_OTA_DeInit();
    remove(IMAGE);
    return failures == 0 ? 0 : 1;
}
