#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "base/unique_fd.h"
#include "hal/flash_mmc.h"
#include "hal/hal_interfaces.h"

// The module for non-volatile data, which is stored in small eMMC partitions. The module keeps no
// state and takes no lock.
namespace {

constexpr int32_t NV_OK = 0;  // reads and writes return the driver's byte count, or -1

constexpr const char* USER_PARTITION = "nv_user";
constexpr const char* FACTORY_PARTITION = "nv_factory";
constexpr const char* RECORD_PARTITION = "rec_data";
constexpr const char* BOOT_PARTITION = "misc";

// The boot loader reads its command at this byte offset of BOOT_PARTITION.
constexpr int32_t BOOT_COMMAND_OFFSET = 16384;
using BootCommand = std::array<char, 32>;
constexpr std::string_view RECOVERY_COMMAND = "boot-recovery";
static_assert(RECOVERY_COMMAND.size() < sizeof(BootCommand));

// The partition's device node may appear only after the service has started, so wait up to 5 s.
constexpr int FACTORY_ATTEMPTS = 1000;
constexpr useconds_t FACTORY_PAUSE_US = 5000;

int32_t nv_init() {
    return NV_OK;
}

int32_t nv_deinit() {
    return NV_OK;
}

int32_t nv_user_read(void* buffer, int32_t offset, uint32_t length) {
    return flash_mmc_read_sector(USER_PARTITION, buffer, offset, length);
}

int32_t nv_user_write(const void* buffer, int32_t offset, uint32_t length) {
    return flash_mmc_write_sector_partition(USER_PARTITION, buffer, offset, length);
}

int32_t nv_factory_read(void* buffer, int32_t offset, uint32_t length) {
    for (int attempt = 0; attempt < FACTORY_ATTEMPTS; ++attempt) {
        if (corvo::UniqueFd(flash_mmc_open(FACTORY_PARTITION, O_RDONLY)).valid()) {
            break;
        }
        usleep(FACTORY_PAUSE_US);
    }
    // Called even if the node did not appear: the driver then reports the failure.
    return flash_mmc_read_sector(FACTORY_PARTITION, buffer, offset, length);
}

int32_t nv_factory_write(const void* buffer, int32_t offset, uint32_t length) {
    return flash_mmc_write_sector_partition(FACTORY_PARTITION, buffer, offset, length);
}

int32_t rec_data_read(void* buffer, int32_t offset, uint32_t length) {
    return flash_mmc_read_sector(RECORD_PARTITION, buffer, offset, length);
}

int32_t rec_data_write(const void* buffer, int32_t offset, uint32_t length) {
    return flash_mmc_write_sector_partition(RECORD_PARTITION, buffer, offset, length);
}

int32_t write_boot_command(std::string_view text) {
    BootCommand command{};
    std::ranges::copy(text, command.begin());
    return flash_mmc_write_sector_partition(BOOT_PARTITION, command.data(), BOOT_COMMAND_OFFSET,
                                            sizeof(command));
}

int32_t nv_enter_recovery() {
    return write_boot_command(RECOVERY_COMMAND);
}

int32_t nv_exit_recovery() {
    return write_boot_command("");
}

}  // namespace

constexpr HalNvInterface NV_INTERFACE = {
    .init = nv_init,
    .deinit = nv_deinit,
    .userRead = nv_user_read,
    .userWrite = nv_user_write,
    .factoryRead = nv_factory_read,
    .factoryWrite = nv_factory_write,
    .recordRead = rec_data_read,
    .recordWrite = rec_data_write,
    .enterRecovery = nv_enter_recovery,
    .exitRecovery = nv_exit_recovery,
};
