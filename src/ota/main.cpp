// The camera's upgrade service: initialises the libraries that it uses, waits for one upgrade
// request and passes it to the upgrade procedure, which does not return.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include "base/alternate_stack.h"
#include "base/standard_descriptors.h"
#include "base/version.h"
#include "dbus/system_call.h"
#include "log/log_front_end.h"
#include "log/log_producer.h"
#include "ota/ota_message.h"
#include "ota/ota_signals.h"
#include "ota/ota_upgrade.h"
#include "platform/plt.h"

void* Plt_Log_TcpPrint = nullptr;

namespace {

constexpr long ANY_TYPE = 0;
constexpr unsigned RECEIVE_RETRY_S = 5;

// Blocks until a request arrives. Returns false when msgrcv(2) fails or the message is empty. Bytes
// that a short request lacks are set to zero.
bool receive_request(int queueId, OtaMessage* message) {
    OtaQueueMessage received = {};
    const ssize_t length = msgrcv(queueId, &received, sizeof(received.text), ANY_TYPE, 0);
    if (length <= 0) {
        return false;
    }
    message->mtype = static_cast<int32_t>(received.mtype);
    memcpy(&message->packageType, received.text, sizeof(received.text));
    return true;
}

}  // namespace

int main() {
    const corvo::AlternateStack crashStack;
    corvo::occupy_standard_descriptors();
    // Lines that are still in the buffer would be lost when the process is killed.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    UPGRADE_LOG("upgrade version:%s", CORVO_VERSION);
    UPGRADE_LOG("ota evn_init start");
    system_call_init();
    UPGRADE_LOG("ota evn_init end");
    Plt_SysInit();
    ota_signals_start();
    Corvo_LogProducerInit(CORVO_LOG_MODULE_MASK);
    Corvo_SetLogLevel(LOG_LEVEL_DETAIL);

    const key_t key = ftok(OTA_MSG_QUEUE_PATH, OTA_MSG_QUEUE_PROJECT);
    if (key == -1) {
        UPGRADE_LOG("ota ftok fail");
        return EXIT_SUCCESS;
    }
    const int queueId = msgget(key, IPC_CREAT | OTA_MSG_QUEUE_MODE);
    if (queueId == -1) {
        UPGRADE_LOG("ota creat msg queue fail");
        return EXIT_SUCCESS;
    }
    OtaMessage message = {};
    UPGRADE_LOG("ota wait for ota message");
    while (!receive_request(queueId, &message)) {
        sleep(RECEIVE_RETRY_S);
        UPGRADE_LOG("ota wait for ota message");
    }
    UPGRADE_EVENT(LOG_EVENT_RECEIVED, "UPGRADE_LUMO_RECV_MSG");
    upgrade_handler(queueId, message);
}
