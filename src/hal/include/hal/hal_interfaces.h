// The operation tables of the hardware modules. Each module defines one constant table. A null slot
// means that the module does not have the operation.
#ifndef HAL_HAL_INTERFACES_H
#define HAL_HAL_INTERFACES_H

#include <stdint.h>

#include "pal/modules.h"

// The LED that a request applies to. Other values select no LED.
enum LedType : uint32_t {
    LED_TYPE_RED = 0,
    LED_TYPE_GREEN = 1,
    LED_TYPE_BLUE = 2,
    LED_TYPE_RED_BLUE = 4,  // red and blue alternately; blink only
    LED_TYPE_ROBUST = 6,    // the long red and blue sequences; blink only
    LED_TYPE_ALL = 8,       // red, green and blue together
};

struct LedBlinkCfg {
    // Milliseconds; selects one of the fixed patterns. A value below 1000 selects the fast blink
    // (period 500 ms), any other value the slow blink (period 1 s). For LED_TYPE_ROBUST the values
    // 4000, 10000 and 1000 each select one of its sequences; any other value changes nothing.
    uint32_t periodMs;
};

// Firmware upgrade. Strings are NUL-terminated. Operations that write or erase, and the slot
// switch, block until the flash or the board's scripts have finished.
struct HalOtaInterface {
    // Slot 0. Prepares the module. Returns 0.
    int32_t (*init)();

    // Slot 1. Shuts the module down. Returns 0.
    int32_t (*deinit)();

    // Slot 2. Erases the partition and writes the whole image file to the start of the partition.
    // moduleType is an eModuleType, storageType an eStorageType. Returns 0 or a non-zero code.
    int32_t (*upgrade)(uint32_t moduleType, const char* partitionName, const char* filePath,
                       uint32_t storageType);

    // Slot 3. Opens the partition; flags must be 0 (read-only). On success *fd is a descriptor that
    // the caller closes. Returns 0 or a non-zero code.
    int32_t (*openPartition)(const char* partitionName, int32_t flags, uint32_t storageType,
                             int32_t* fd);

    // Slot 4. Erases the whole partition. Returns 0 or a non-zero code.
    int32_t (*erasePartition)(const char* partitionName, uint32_t storageType);

    // Slot 5. Erases the partition and writes `size` bytes of the package file, starting at byte
    // `offset` of the file, to the start of the partition. If the package ends before that, the
    // copy ends there and counts as successful. Returns 0 or a non-zero code.
    int32_t (*upgradeByOffset)(uint32_t moduleType, const char* partitionName, const char* filePath,
                               uint32_t offset, uint32_t size, uint32_t storageType);

    // Slot 6. Makes the boot loader start the other boot slot at the next restart. The arguments
    // exist for boards that number their slots. Returns 0 or a non-zero code.
    int32_t (*abSwitch)(int32_t slot, uint32_t flags);
};

// Status LED. A request only selects a pattern; it does not wait until the LED shows the pattern.
struct HalLedInterface {
    // Slot 0. Starts the module. The argument is ignored. Returns 0, or 1 when not started.
    int32_t (*init)(uint32_t index);

    // Slot 1. Stops the module; blocks until its thread has ended, about 250 ms (one tick) at most.
    // The argument is ignored. Returns 0.
    int32_t (*deinit)(uint32_t index);

    // Slot 2. Reserved; the arguments are an LED type, a value and an index. Does nothing and
    // returns 0.
    int32_t (*reserved2)(uint32_t type, uint8_t value, uint32_t index);

    // Slot 3. Switches an LED. type is a LedType. For LED_TYPE_ALL, a non-zero `enable` switches
    // all LEDs on and 0 switches them off. A single colour is always switched on, even if `enable`
    // is 0. The last argument is ignored. Returns 0.
    int32_t (*enable)(uint32_t type, int32_t enable, uint32_t index);

    // Slot 4. Makes an LED blink. type is a LedType; the last argument is ignored. Returns 0. If
    // config is null, changes nothing and returns 1.
    int32_t (*blink)(uint32_t type, const LedBlinkCfg* config, uint32_t index);

    // Slot 5. Reserved. Does nothing and returns 0.
    int32_t (*reserved5)(uint32_t first, uint32_t second, uint32_t third, uint32_t fourth);

    // Slot 6. Reserved; null.
    void (*reserved6)();
};

// Non-volatile data. Reads and writes transfer `length` bytes at byte `offset` of their partition
// and return the number of bytes transferred, or -1. A write must end within the first 64 KiB of
// the partition.
struct HalNvInterface {
    // Slot 0. Prepares the module. Returns 0.
    int32_t (*init)();

    // Slot 1. Shuts the module down. Returns 0.
    int32_t (*deinit)();

    // Slots 2 and 3. User data.
    int32_t (*userRead)(void* buffer, int32_t offset, uint32_t length);
    int32_t (*userWrite)(const void* buffer, int32_t offset, uint32_t length);

    // Slots 4 and 5. Factory data. The read waits up to about 5 s for the partition's device node.
    int32_t (*factoryRead)(void* buffer, int32_t offset, uint32_t length);
    int32_t (*factoryWrite)(const void* buffer, int32_t offset, uint32_t length);

    // Slots 6 and 7. Record data.
    int32_t (*recordRead)(void* buffer, int32_t offset, uint32_t length);
    int32_t (*recordWrite)(const void* buffer, int32_t offset, uint32_t length);

    // Slot 8. Makes the boot loader start the recovery system. Returns the number of bytes written,
    // or -1.
    int32_t (*enterRecovery)();

    // Slot 9. Withdraws the request of slot 8. Returns the number of bytes written, or -1.
    int32_t (*exitRecovery)();
};

// Power management. No module of this camera provides it.
struct HalPmuInterface {
    // Slot 0. Prepares the module. Returns 0 or a non-zero code.
    int32_t (*init)(uint32_t index);
};

// Declares the operation tables that pal/modules.h names.
#define HAL_MODULE_TABLE(kind, Interface, table) extern const Interface table;
HAL_MODULES(HAL_MODULE_TABLE)
#undef HAL_MODULE_TABLE

#endif  // HAL_HAL_INTERFACES_H
