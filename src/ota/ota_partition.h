// Writes one module of a package into its partition through the platform abstraction, and compares
// whole images with what the partition then holds. Not thread-safe: the comparison uses static
// buffers, so only one partition may be processed at a time.
#ifndef OTA_OTA_PARTITION_H
#define OTA_OTA_PARTITION_H

#include <stdint.h>

constexpr uint32_t OTA_VERIFY_CHUNK = 16384;  // bytes compared at a time
constexpr int32_t OTA_REUPGRADE_MAX = 2;      // rewrites of a module whose read-back differs

// Writes the whole file into the partition, reads the partition back and compares it with the file.
// If they differ, writes and compares again, at most OTA_REUPGRADE_MAX times. A failed write is not
// repeated. halModuleType is an eModuleType, storageType an eStorageType of the platform. Blocks
// until the flash has been written and read. Returns OTA_OK when the image is written and verified,
// otherwise OTA_FAILED.
int32_t upgrade_upgradePartition(uint32_t halModuleType, const char* partitionName,
                                 const char* filePath, uint32_t storageType);

// Compares the whole file with the first bytes of the partition. Bytes of the partition beyond the
// file's length are not checked. Returns OTA_OK when they are equal, OTA_FAILED when they differ or
// when either cannot be read.
int32_t upgrade_verifyPartition(const char* partitionName, const char* filePath,
                                uint32_t storageType);

// Writes `size` bytes of the package file, starting at byte `offset`, to the partition and does not
// read them back. The platform accepts 32-bit offsets and sizes only, so larger values are refused.
// Returns OTA_OK when the platform reports success, otherwise OTA_FAILED.
int32_t UPGRADE_UpgradePartitionByOffset(uint32_t halModuleType, const char* partitionName,
                                         uint32_t storageType, const char* packagePath,
                                         uint64_t offset, uint64_t size);

#endif  // OTA_OTA_PARTITION_H
