#include "pending_calls.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "base/owned.h"
#include "base/scoped_lock.h"

#define DBUS_SOURCE DBUS_TRANSPORT
#include "dbus_print.h"

namespace {

constexpr long MS_PER_S = 1000;
constexpr long NS_PER_MS = 1000000;
constexpr long NS_PER_S = 1000000000;

// Returns the link that points to the entry of the message, so that the caller can unlink the
// entry. If the message has no entry, returns the last link of the list, which is null.
SystemCallDbusMethodMsgNode** find_link(SystemCallDbusInfo* info, const SystemCallDbusMsg& msg) {
    SystemCallDbusMethodMsgNode** link = &info->pendingCalls;
    while (*link != nullptr) {
        const SystemCallDbusMsg& call = *(*link)->call;
        if (call.id == msg.id && strcmp(call.method, msg.method) == 0) {
            break;
        }
        link = &(*link)->next;
    }
    return link;
}

void init_node_waiting(SystemCallDbusMethodMsgNode* node) {
    pthread_mutex_init(&node->mutex, nullptr);
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&node->condition, &attributes);
    pthread_condattr_destroy(&attributes);
}

void free_node(SystemCallDbusMethodMsgNode* node) {
    pthread_cond_destroy(&node->condition);
    pthread_mutex_destroy(&node->mutex);
    free(node->reply);
    free(node->call);
    free(node);
}

timespec deadline_after(int32_t timeoutMs) {
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += timeoutMs / MS_PER_S;
    deadline.tv_nsec += timeoutMs % MS_PER_S * NS_PER_MS;
    if (deadline.tv_nsec >= NS_PER_S) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= NS_PER_S;
    }
    return deadline;
}

}  // namespace

int32_t SystemCall_Dbus_Method_Msg_Push(SystemCallDbusInfo* info, const SystemCallDbusMsg* msg) {
    if (msg == nullptr) {
        DBUS_ERROR("msg is NULL");
        return DBUS_INVALID_ARGUMENT;
    }
    auto node = corvo::allocate_zeroed<SystemCallDbusMethodMsgNode>();
    if (node == nullptr) {
        DBUS_ERROR("malloc SystemCallDbusMethodMsgNode failed");
        return DBUS_NO_MEMORY;
    }
    auto copy = corvo::allocate_zeroed<SystemCallDbusMsg>();
    if (copy == nullptr) {
        DBUS_ERROR("malloc SystemCallDbusMsg failed");
        return DBUS_NO_MEMORY;
    }
    *copy = *msg;
    node->call = copy.release();
    init_node_waiting(node.get());

    const corvo::ScopedLock lock(info->lock);
    SystemCallDbusMethodMsgNode** link = &info->pendingCalls;
    while (*link != nullptr) {
        link = &(*link)->next;
    }
    *link = node.release();
    return DBUS_OK;
}

int32_t SystemCall_Dbus_Method_Msg_Result(SystemCallDbusInfo* info,
                                          const SystemCallDbusMsg* reply) {
    if (reply == nullptr) {
        DBUS_ERROR("result is NULL");
        return DBUS_INVALID_ARGUMENT;
    }
    const corvo::ScopedLock lock(info->lock);
    if (info->pendingCalls == nullptr) {
        DBUS_ERROR("method head node is empty");
        return DBUS_INVALID_ARGUMENT;
    }
    SystemCallDbusMethodMsgNode* const node = *find_link(info, *reply);
    if (node == nullptr) {
        return DBUS_CALL_FAILED;
    }
    const corvo::ScopedLock nodeLock(node->mutex);
    if (node->reply != nullptr) {
        DBUS_ERROR("result is already exist");
        return DBUS_CALL_FAILED;
    }
    auto copy = corvo::allocate_zeroed<SystemCallDbusMsg>();
    if (copy == nullptr) {
        DBUS_ERROR("malloc result failed");
        return DBUS_CALL_FAILED;
    }
    *copy = *reply;
    node->reply = copy.release();
    return DBUS_OK;
}

void SystemCall_Dbus_Method_Wakeup(SystemCallDbusInfo* info, const SystemCallDbusMsg* reply) {
    const corvo::ScopedLock lock(info->lock);
    SystemCallDbusMethodMsgNode* const node = *find_link(info, *reply);
    if (node != nullptr) {
        const corvo::ScopedLock nodeLock(node->mutex);
        pthread_cond_signal(&node->condition);
    }
}

int32_t SystemCall_Dbus_Method_Wait(SystemCallDbusInfo* info, const SystemCallDbusMsg* call,
                                    int32_t timeoutMs) {
    const timespec deadline =
        deadline_after(timeoutMs > 0 ? timeoutMs : SYSTEM_CALL_DBUS_DEFAULT_TIMEOUT_MS);
    SystemCallDbusMethodMsgNode* node = nullptr;
    {
        const corvo::ScopedLock lock(info->lock);
        if (info->pendingCalls == nullptr) {
            DBUS_ERROR("method node is empty");
            return DBUS_INVALID_ARGUMENT;
        }
        node = *find_link(info, *call);
    }
    if (node == nullptr) {
        return DBUS_NOT_PENDING;
    }
    // The entry cannot disappear, because only this thread removes it. A reply that was attached
    // before this lock is found by the loop's first check; a later reply wakes the wait.
    const corvo::ScopedLock nodeLock(node->mutex);
    int waited = 0;
    while (node->reply == nullptr && waited == 0) {
        waited = pthread_cond_timedwait(&node->condition, &node->mutex, &deadline);
    }
    return node->reply != nullptr ? METHOD_WAIT_REPLIED : METHOD_WAIT_TIMED_OUT;
}

int32_t SystemCall_Dbus_Method_Msg_Pop(SystemCallDbusInfo* info, const SystemCallDbusMsg* call,
                                       SystemCallDbusMsg* reply) {
    if (call == nullptr || reply == nullptr) {
        DBUS_ERROR("msg or result is NULL");
        return DBUS_INVALID_ARGUMENT;
    }
    const corvo::ScopedLock lock(info->lock);
    if (info->pendingCalls == nullptr) {
        DBUS_ERROR("method node is empty");
        return DBUS_INVALID_ARGUMENT;
    }
    SystemCallDbusMethodMsgNode** const link = find_link(info, *call);
    SystemCallDbusMethodMsgNode* const node = *link;
    if (node == nullptr) {
        DBUS_ERROR("ID:%d (%s) node is not find", call->id, call->method);
        return DBUS_NOT_PENDING;
    }
    *link = node->next;
    const bool replied = node->reply != nullptr;
    if (replied) {
        *reply = *node->reply;
    }
    free_node(node);
    return replied ? METHOD_POP_REPLIED : METHOD_POP_NO_REPLY;
}
