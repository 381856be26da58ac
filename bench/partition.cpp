// Runs one operation of the service on one partition in a separate process:
//
//   partition erase NAME              the erase of the eMMC driver
//   partition write NAME FILE         the copy of the eMMC driver
//   partition compare NAME FILE       the service's read-back comparison
#include <stdio.h>
#include <string.h>

#include "hal/flash_mmc.h"
#include "ota_partition.h"
#include "pal/ota_types.h"

void* Plt_Log_TcpPrint = nullptr;

int main(int argc, char** argv) {
    const char* const operation = argc > 2 ? argv[1] : "";
    if (strcmp(operation, "erase") == 0) {
        return flash_mmc_erase_partition(argv[2]) == 0 ? 0 : 1;
    }
    if (strcmp(operation, "write") == 0 && argc > 3) {
        return flash_mmc_write_partition(argv[2], argv[3]) == 0 ? 0 : 1;
    }
    if (strcmp(operation, "compare") == 0 && argc > 3) {
        return upgrade_verifyPartition(argv[2], argv[3], STORAGE_TYPE_MMC);
    }
    fprintf(stderr, "usage: partition erase NAME | write NAME FILE | compare NAME FILE\n");
    return 64;
}
