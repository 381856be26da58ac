// The outcome record: seven bytes in a file that survive the restart which ends every upgrade.
// Other processes of the camera read it after their start.
//
// The file is rewritten in place, so a reader may find it short for a moment; it is loaded once per
// process. For the main thread only.
#ifndef OTA_OTA_DATA_H
#define OTA_OTA_DATA_H

#include <stdint.h>

#define OTA_DATA_PATH "/config/ota_data.dat"

// Byte k of the file is the value of key k. Keys that are not named belong to others and are kept.
constexpr uint32_t OTA_DATA_KEY_COUNT = 7;
constexpr uint32_t OTA_DATA_KEY_RESULT = 1;
constexpr uint32_t OTA_DATA_KEY_STATE = 5;

// The file, byte for byte.
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

// Reads the record from its file, the first time only. Returns the bytes read (0 to 7); 0 on later
// calls and when the file cannot be opened.
int32_t OTA_LoadDataNv();

// The value of a key; 0 for a key above 6. Loads the record first.
uint8_t OTA_GetDataNv(uint32_t key);

// Stores a value and writes the record to its file, synchronously; a value that is there already
// touches nothing. Loads the record first. When the file cannot be opened the value is kept in
// memory and a line is logged.
void OTA_SetDataNv(uint32_t key, uint8_t value);

#endif  // OTA_OTA_DATA_H
