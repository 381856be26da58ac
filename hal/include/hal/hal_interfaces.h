// The operation tables that the hardware modules fill, one constant table per module. A slot may be
// null: the module has no such operation.
#ifndef HAL_HAL_INTERFACES_H
#define HAL_HAL_INTERFACES_H

#include <stdint.h>

#include "board/modules.h"

// What an LED request is about. Values that are not named select nothing.
enum LedType : uint32_t {
    LED_TYPE_RED = 0,
    LED_TYPE_GREEN = 1,
    LED_TYPE_BLUE = 2,
    LED_TYPE_RED_BLUE = 4,  // red and blue in turn; blink only
    LED_TYPE_ROBUST = 6,    // the long red and blue sequences; blink only
    LED_TYPE_ALL = 8,       // red, green and blue together
};

struct LedBlinkCfg {
    // Milliseconds, a choice and not a measure: below 1000 a fast blink (500 ms), from there on a
    // slow one (1 s). LED_TYPE_ROBUST knows 4000, 10000 and 1000, one for each of its sequences;
    // with any other period it changes nothing.
    uint32_t periodMs;
};

// Firmware upgrade. Strings are NUL-terminated. Writes, erasing and the slot switch block for as
// long as the flash or the board's scripts take.
struct HalOtaInterface {
    // Slot 0. Prepares the module. Returns 0.
    int32_t (*init)();

    // Slot 1. Ends the use of the module. Returns 0.
    int32_t (*deinit)();

    // Slot 2. Erases the partition and writes the whole image file from its start on. moduleType is
    // an eModuleType, storageType an eStorageType. Returns 0 or a non-zero code.
    int32_t (*upgrade)(uint32_t moduleType, const char* partitionName, const char* filePath,
                       uint32_t storageType);

    // Slot 3. Opens the partition; flags must be 0, read only. On success *fd is a descriptor that
    // the caller closes. Returns 0 or a non-zero code.
    int32_t (*openPartition)(const char* partitionName, int32_t flags, uint32_t storageType,
                             int32_t* fd);

    // Slot 4. Erases the whole partition. Returns 0 or a non-zero code.
    int32_t (*erasePartition)(const char* partitionName, uint32_t storageType);

    // Slot 5. Erases the partition and writes `size` bytes of the package file, from byte `offset`
    // on, from the partition's start on; a package that ends earlier ends the copy, which counts as
    // done. Returns 0 or a non-zero code.
    int32_t (*upgradeByOffset)(uint32_t moduleType, const char* partitionName, const char* filePath,
                               uint32_t offset, uint32_t size, uint32_t storageType);

    // Slot 6. Makes the boot loader start the other of the two slots next time. Both arguments are
    // kept for boards that number their slots. Returns 0 or a non-zero code.
    int32_t (*abSwitch)(int32_t slot, uint32_t flags);
};

// Status LED. A request only names a pattern; it does not wait until the LED shows it.
struct HalLedInterface {
    // Slot 0. Starts the module. The argument is ignored. Returns 0, or 1 when not started.
    int32_t (*init)(uint32_t index);

    // Slot 1. Stops the module and waits for that, up to about a tick of 250 ms. The argument is
    // ignored. Returns 0.
    int32_t (*deinit)(uint32_t index);

    // Slot 2. Reserved: a LED type, a value and an index. Does nothing and returns 0.
    int32_t (*reserved2)(uint32_t type, uint8_t value, uint32_t index);

    // Slot 3. Switches a LED. type is a LedType. For LED_TYPE_ALL enable non-zero: on, 0: off; a
    // single colour is switched on whatever `enable` says. The last argument is ignored. Returns 0.
    int32_t (*enable)(uint32_t type, int32_t enable, uint32_t index);

    // Slot 4. Lets a LED blink. type is a LedType; the last argument is ignored. Returns 0,
    // or 1 without a configuration, when nothing changes.
    int32_t (*blink)(uint32_t type, const LedBlinkCfg* config, uint32_t index);

    // Slot 5. Reserved. Does nothing and returns 0.
    int32_t (*reserved5)(uint32_t first, uint32_t second, uint32_t third, uint32_t fourth);

    // Slot 6. Reserved; null.
    void (*reserved6)();
};

// Non-volatile data. Reads and writes move `length` bytes at byte `offset` of their partition and
// return the number of bytes moved, or -1. A write must end within the partition's first 64 KiB.
struct HalNvInterface {
    // Slot 0. Prepares the module. Returns 0.
    int32_t (*init)();

    // Slot 1. Ends the use of the module. Returns 0.
    int32_t (*deinit)();

    // Slots 2 and 3. User data.
    int32_t (*userRead)(void* buffer, int32_t offset, uint32_t length);
    int32_t (*userWrite)(const void* buffer, int32_t offset, uint32_t length);

    // Slots 4 and 5. Factory data. The read waits up to about 5 s for the partition's node.
    int32_t (*factoryRead)(void* buffer, int32_t offset, uint32_t length);
    int32_t (*factoryWrite)(const void* buffer, int32_t offset, uint32_t length);

    // Slots 6 and 7. Record data.
    int32_t (*recordRead)(void* buffer, int32_t offset, uint32_t length);
    int32_t (*recordWrite)(const void* buffer, int32_t offset, uint32_t length);

    // Slot 8. Asks the boot loader for the recovery system. Returns bytes written, or -1.
    int32_t (*enterRecovery)();

    // Slot 9. Takes that request back. Returns bytes written, or -1.
    int32_t (*exitRecovery)();
};

// Power management. No module of this camera provides it.
struct HalPmuInterface {
    // Slot 0. Prepares the module. Returns 0 or a non-zero code.
    int32_t (*init)(uint32_t index);
};

// The modules' tables, by the names in board/modules.h.
#define HAL_MODULE_TABLE(kind, Interface, table) extern const Interface table;
HAL_MODULES(HAL_MODULE_TABLE)
#undef HAL_MODULE_TABLE

#endif  // HAL_HAL_INTERFACES_H
