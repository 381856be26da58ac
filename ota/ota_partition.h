// Writes one module of a package into its partition through the platform, and reads whole images
// back. One partition at a time, on one thread: the comparison's buffers exist once.
#ifndef OTA_OTA_PARTITION_H
#define OTA_OTA_PARTITION_H

#include <stdint.h>

constexpr uint32_t OTA_VERIFY_CHUNK = 16384;  // bytes compared at a time
constexpr int32_t OTA_REUPGRADE_MAX = 2;      // re-writes of a module whose read-back differs

// Writes the whole file into the partition and compares what it holds then with the file; a
// difference has it written again, OTA_REUPGRADE_MAX times at most. A failed write is not repeated.
// halModuleType and storageType are the platform's codes. Blocks for as long as flash takes.
// Returns OTA_OK when written and verified, else OTA_FAILED.
int32_t upgrade_upgradePartition(uint32_t halModuleType, const char* partitionName,
                                 const char* filePath, uint32_t storageType);

// Compares the partition's first bytes with the whole file; what follows in the partition is not
// looked at. Returns OTA_OK when they are equal, OTA_FAILED when not or when either cannot be read.
int32_t upgrade_verifyPartition(const char* partitionName, const char* filePath,
                                uint32_t storageType);

// Writes `size` bytes of the package from byte `offset` on into the partition, without read-back.
// The platform takes offset and size in 32 bits: larger ones are refused.
// Returns OTA_OK when the platform reports success, else OTA_FAILED.
int32_t UPGRADE_UpgradePartitionByOffset(uint32_t halModuleType, const char* partitionName,
                                         uint32_t storageType, const char* packagePath,
                                         uint64_t offset, uint64_t size);

#endif  // OTA_OTA_PARTITION_H
