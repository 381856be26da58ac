// The upgrade request as it is sent over the System V message queue.
#ifndef OTA_OTA_MESSAGE_H
#define OTA_OTA_MESSAGE_H

#include <stddef.h>
#include <stdint.h>

// The queue has the key ftok(OTA_MSG_QUEUE_PATH, OTA_MSG_QUEUE_PROJECT) and the access mode
// OTA_MSG_QUEUE_MODE.
constexpr const char* OTA_MSG_QUEUE_PATH = "/tmp";
constexpr int OTA_MSG_QUEUE_PROJECT = 64;
constexpr int OTA_MSG_QUEUE_MODE = 0666;

constexpr int32_t OTA_MSG_MAX_MODULES = 16;
constexpr size_t OTA_MSG_DIR_SIZE = 64;    // bytes, terminator included
constexpr size_t OTA_MSG_FILE_SIZE = 128;  // bytes, terminator included

enum OtaPackageType : int32_t {
    OTA_PACKAGE_TYPE_FILES = 0,     // one image file per module in packageDir
    OTA_PACKAGE_TYPE_COMBINED = 1,  // one package file that holds every module at an offset
};

struct __attribute__((packed)) OtaModuleInfo {
    uint64_t size;    // bytes
    uint64_t offset;  // bytes from the start of the package file
};

// Little-endian and packed, so that a request has the same 524 bytes on every machine. msgsnd(2)
// and msgrcv(2) pass the message type separately, as a `long`; the text of the message on the queue
// is everything after mtype (see OtaQueueMessage).
struct __attribute__((packed)) OtaMessage {
    int32_t mtype;                                  // any value is accepted
    int32_t packageType;                            // OtaPackageType
    char packageDir[OTA_MSG_DIR_SIZE];              // path prefix of package files, ends in "/"
    int32_t moduleCount;                            // used entries of the arrays below; at most 16
    uint32_t moduleTypes[OTA_MSG_MAX_MODULES];      // module types of the package table
    char packageFile[OTA_MSG_FILE_SIZE];            // name of the combined package in packageDir
    OtaModuleInfo moduleInfo[OTA_MSG_MAX_MODULES];  // entry i belongs to moduleTypes[i]
};
static_assert(sizeof(OtaMessage) == 524);
static_assert(offsetof(OtaMessage, packageType) == 4);
static_assert(offsetof(OtaMessage, packageDir) == 8);
static_assert(offsetof(OtaMessage, moduleCount) == 72);
static_assert(offsetof(OtaMessage, moduleTypes) == 76);
static_assert(offsetof(OtaMessage, packageFile) == 140);
static_assert(offsetof(OtaMessage, moduleInfo) == 268);

constexpr size_t OTA_MSG_TEXT_SIZE = sizeof(OtaMessage) - sizeof(int32_t);
static_assert(OTA_MSG_TEXT_SIZE == 520);

// The same message in the layout that msgsnd(2) and msgrcv(2) require.
struct OtaQueueMessage {
    long mtype;
    char text[OTA_MSG_TEXT_SIZE];
};

#endif  // OTA_OTA_MESSAGE_H
