// The outcome record of an upgrade: a file of seven bytes. The file survives the restart at the end
// of every upgrade, and other processes of the camera read it when they start.
//
// The file is rewritten in place, so a reader may briefly find fewer than seven bytes. A process
// loads the file only once. Call these functions from the main thread only.
#ifndef OTA_OTA_DATA_H
#define OTA_OTA_DATA_H

#include <stdint.h>

#define OTA_DATA_PATH "/config/ota_data.dat"

// Byte k of the file is the value of key k. Keys without a name here belong to other programs;
// their values are preserved.
constexpr uint32_t OTA_DATA_KEY_COUNT = 7;
constexpr uint32_t OTA_DATA_KEY_RESULT = 1;
constexpr uint32_t OTA_DATA_KEY_STATE = 5;

// The content of the file, byte for byte.
struct OtaDataRecord {
    uint8_t values[OTA_DATA_KEY_COUNT];
};
static_assert(sizeof(OtaDataRecord) == 7);

enum OtaDataResult : uint8_t {
    OTA_RESULT_SUCCEEDED = 1,
    OTA_RESULT_NOT_SUCCEEDED = 2,  // failed, or not finished
};

enum OtaDataState : uint8_t {
    OTA_STATE_SUCCESS = 3,
    OTA_STATE_FAILURE = 4,
    OTA_STATE_AUTO_FLASH_SUCCESS = 6,
};

// Reads the record from its file, on the first call only. Returns the number of bytes read (0 to
// 7); returns 0 on later calls and when the file cannot be opened.
int32_t OTA_LoadDataNv();

// Returns the value of a key, or 0 for a key above 6. Loads the record first.
uint8_t OTA_GetDataNv(uint32_t key);

// Stores a value and writes the record to its file synchronously. Does not write the file when the
// key already has this value. Loads the record first. When the file cannot be opened, logs that and
// keeps the value in memory.
void OTA_SetDataNv(uint32_t key, uint8_t value);

#endif  // OTA_OTA_DATA_H
