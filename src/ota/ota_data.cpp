#include "ota/ota_data.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "base/ignore_result.h"
#include "base/owned.h"
#include "base/unique_fd.h"
#include "log/log_front_end.h"

namespace {

constexpr mode_t RECORD_MODE = 0644;

// Once loaded, this copy is authoritative and the file is not read again.
OtaDataRecord g_record;
bool g_loaded = false;

void write_record(const char* operation) {
    const corvo::UniqueFd fd(
        open(OTA_DATA_PATH, O_WRONLY | O_CREAT | O_TRUNC | O_DSYNC | O_CLOEXEC, RECORD_MODE));
    if (!fd.valid()) {
        UPGRADE_LOG_AS(operation, "open %s failed", OTA_DATA_PATH);
        return;
    }
    // An upgrade must not stop because the record cannot be written: the images may still be.
    corvo::ignore_result(write(fd.get(), &g_record, sizeof(g_record)));
    fsync(fd.get());
}

}  // namespace

int32_t OTA_LoadDataNv() {
    if (g_loaded) {
        return 0;
    }
    g_loaded = true;
    const corvo::OwnedFile file(fopen(OTA_DATA_PATH, "rbe"));
    if (file == nullptr) {
        return 0;
    }
    return static_cast<int32_t>(fread(&g_record, 1, sizeof(g_record), file.get()));
}

uint8_t OTA_GetDataNv(uint32_t key) {
    OTA_LoadDataNv();
    return key < OTA_DATA_KEY_COUNT ? g_record.values[key] : 0;
}

void OTA_SetDataNv(uint32_t key, uint8_t value) {
    OTA_LoadDataNv();
    if (value == OTA_GetDataNv(key)) {
        UPGRADE_LOG("key:%d value is same:%d", static_cast<int>(key), value);
        return;
    }
    if (key < OTA_DATA_KEY_COUNT) {
        g_record.values[key] = value;
    }
    write_record(__func__);
}
