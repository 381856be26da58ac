// Fuzzes the whole upgrade procedure with request records: table lookups, construction of paths,
// and all decisions up to the writing. The platform, the daemon and the outcome record are stubs.
#include <fcntl.h>
#include <setjmp.h>
#include <unistd.h>

#include "fuzz_input.h"
#include "ota/ota_data.h"
#include "ota/ota_message.h"
#include "ota/ota_package.h"
#include "ota/ota_result.h"
#include "ota/ota_upgrade.h"
#include "ota_partition.h"
#include "ota_reboot.h"
#include "pal/modules.h"
#include "pal/pal_led.h"
#include "pal/pal_nv.h"
#include "pal/pal_ota.h"
#include "pal/pal_pmu.h"

namespace {

jmp_buf g_end;
bool g_upgrading = false;
uint32_t g_answers;  // one bit for each return value of the stubs
uint8_t g_result;

bool answer() {
    g_answers = (g_answers >> 1) | (g_answers << 31);
    return (g_answers & 1) != 0;
}

// Checks the arguments that the platform receives: a row of the table, and a terminated path.
void check_write(const char* partitionName, const char* path) {
    const OtaPackageTable* tables = nullptr;
    uint32_t count = 0;
    OTA_GetPackageTables(0, &tables, &count);
    bool known = false;
    for (int32_t row = 0; row < tables[0].entryCount; ++row) {
        known = known || strcmp(tables[0].entries[row].partitionName, partitionName) == 0;
    }
    fuzz_expect(known && strlen(path) < 128 && g_result == OTA_RESULT_NOT_SUCCEEDED);
}

}  // namespace

int32_t upgrade_upgradePartition(uint32_t /*type*/, const char* partitionName, const char* filePath,
                                 uint32_t /*storageType*/) {
    check_write(partitionName, filePath);
    return answer() ? OTA_OK : OTA_FAILED;
}

int32_t UPGRADE_UpgradePartitionByOffset(uint32_t /*type*/, const char* partitionName,
                                         uint32_t /*storageType*/, const char* packagePath,
                                         uint64_t /*offset*/, uint64_t /*size*/) {
    check_write(partitionName, packagePath);
    return answer() ? OTA_OK : OTA_FAILED;
}

int32_t OTA_LoadDataNv() {
    return 0;
}
void OTA_SetDataNv(uint32_t key, uint8_t value) {
    fuzz_expect(key == OTA_DATA_KEY_RESULT || key == OTA_DATA_KEY_STATE);
    if (key == OTA_DATA_KEY_RESULT) {
        g_result = value;
    }
}
int32_t PAL_OTA_DeInit() {
    return PAL_OK;
}
// prepare() initialises every module. These stubs replace the modules.
#define START_OF_MODULE(kind, ...) \
    int32_t PAL_##kind##_Init() {  \
        return PAL_OK;             \
    }
HAL_MODULES(START_OF_MODULE)
int32_t PAL_Pmu_Init(uint32_t /*index*/) {
    return PAL_OK;
}
int32_t PAL_OTA_AB_SWITCH(int32_t /*slot*/, uint32_t /*flags*/) {
    fuzz_expect(g_result == OTA_RESULT_SUCCEEDED);
    return PAL_OK;
}
void ota_reboot() {}

extern "C" {
[[noreturn]] void __real_exit(int status);
void __wrap_exit(int status) {
    if (!g_upgrading) {
        __real_exit(status);  // called by the fuzzer itself
    }
    longjmp(g_end, 1);
}
unsigned __wrap_sleep(unsigned /*seconds*/) {
    return 0;
}
int __wrap_msgctl(int /*id*/, int /*command*/, void* /*data*/) {
    return 0;
}
int __wrap_access(const char* path, int /*mode*/) {
    fuzz_expect(strlen(path) < 128);
    return answer() ? 0 : -1;
}
int __wrap_remove(const char* path) {
    fuzz_expect(strlen(path) < 128 && g_result == OTA_RESULT_SUCCEEDED);
    return 0;
}
void __wrap_sync() {}

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input = {data, size};
    g_result = 0;
    input.bytes(&g_answers, sizeof(g_answers));
    OtaMessage message = {};
    input.bytes(&message, sizeof(message));
    if (setjmp(g_end) == 0) {
        g_upgrading = true;
        upgrade_handler(0, message);
    }
    g_upgrading = false;
    return 0;
}
}
