#include "dbus/dbus_socket_common.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include "base/owned.h"
#include "endpoint.h"

#define DBUS_SOURCE DBUS_TRANSPORT
#include "dbus_print.h"

sockaddr_un dbus_server_address(const char* serverName) {
    char path[SYSTEM_CALL_DBUS_PATH_SIZE] = {};
    snprintf(path, sizeof(path), SYSTEM_CALL_DBUS_SOCKET_FORMAT, serverName);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    return address;
}

void dbus_name_thread(const char* name) {
    char cut[THREAD_NAME_SIZE] = {};
    snprintf(cut, sizeof(cut), "%.15s", name);
    prctl(PR_SET_NAME, cut);
}

SystemCallDbusInfo* SystemCall_DbusInfo_Alloc(int32_t interfaceCount) {
    if (interfaceCount < 0 || interfaceCount > SYSTEM_CALL_DBUS_MAX_INTERFACES) {
        DBUS_ERROR("interface count %d is out of range", interfaceCount);
        return nullptr;
    }
    SystemCallDbusInfo* const info = corvo::allocate_zeroed<SystemCallDbusInfo>().release();
    if (info == nullptr) {
        DBUS_ERROR("malloc SystemCallDbusInfo error");
        return nullptr;
    }
    info->interfaceCount = interfaceCount;
    for (int32_t i = 0; i < interfaceCount; ++i) {
        info->interfaces[i] = corvo::allocate_zeroed<SystemCallDbusInterface>().release();
        if (info->interfaces[i] == nullptr) {
            DBUS_ERROR("malloc SystemCallDbusInterface error");
            SystemCall_DbusInfo_Free(info);
            return nullptr;
        }
    }
    return info;
}

void SystemCall_DbusInterface_Set_Method(SystemCallDbusInterface* entry, const char* method,
                                         int32_t (*handler)(const void* in, uint32_t inLen,
                                                            void* out, uint32_t outCap)) {
    snprintf(entry->name, sizeof(entry->name), "%s", method);
    snprintf(entry->methodMarker, sizeof(entry->methodMarker), "%s", method);
    entry->methodHandler = handler;
}

void SystemCall_DbusInfo_Free(SystemCallDbusInfo* info) {
    if (info == nullptr) {
        return;
    }
    for (int32_t i = 0; i < info->interfaceCount; ++i) {
        free(info->interfaces[i]);
    }
    free(info);
}

int32_t SystemCall_Dbus_Register(SystemCallDbusInfo* info) {
    pthread_mutex_init(&info->lock, nullptr);
    pthread_cond_init(&info->serverIdle, nullptr);
    info->stopping = false;
    int32_t result = DBUS_OK;
    if (info->interfaceCount != 0) {
        result = dbus_server_open(info);
    }
    if (result == DBUS_OK && info->serverName[0] != '\0') {
        result = dbus_client_open(info);
    }
    if (result != DBUS_OK) {
        SystemCall_Dbus_UnRegister(info);
    }
    return result;
}

int32_t SystemCall_Dbus_UnRegister(SystemCallDbusInfo* info) {
    info->stopping = true;
    dbus_server_close(info);
    dbus_client_close(info);
    pthread_cond_destroy(&info->serverIdle);
    pthread_mutex_destroy(&info->lock);
    return DBUS_OK;
}

int32_t Dbus_Lock(SystemCallDbusInfo* info) {
    if (info == nullptr) {
        DBUS_ERROR("dbusInfo is NULL, lock failed");
        return DBUS_LOCK_NULL;
    }
    pthread_mutex_lock(&info->lock);
    return DBUS_OK;
}

int32_t Dbus_UnLock(SystemCallDbusInfo* info) {
    if (info == nullptr) {
        DBUS_ERROR("dbusInfo is NULL, unlock failed");
        return DBUS_UNLOCK_NULL;
    }
    pthread_mutex_unlock(&info->lock);
    return DBUS_OK;
}
