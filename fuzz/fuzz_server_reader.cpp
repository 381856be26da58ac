// Bytes from a client, in any split, through a real server endpoint: its connection and message
// threads, its handlers and their replies.
#include <fcntl.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "dbus/dbus_socket_common.h"
#include "fuzz_input.h"

namespace {

constexpr char NAME[] = "fuzz";
constexpr size_t ENTRIES = 2;

int32_t echo(const void* in, uint32_t inLen, void* out, uint32_t outCap) {
    fuzz_expect(inLen <= outCap && outCap == SYSTEM_CALL_DBUS_DATA_SIZE);
    memcpy(out, in, inLen);
    return static_cast<int32_t>(inLen);
}

void take_signal(const void* data, uint32_t len) {
    fuzz_expect(data != nullptr && len <= SYSTEM_CALL_DBUS_DATA_SIZE);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    SystemCallDbusInfo* const info = SystemCall_DbusInfo_Alloc(ENTRIES);
    snprintf(info->name, sizeof(info->name), "%s", NAME);
    SystemCall_DbusInterface_Set_Method(info->interfaces[0], "system_call", echo);
    snprintf(info->interfaces[1]->name, SYSTEM_CALL_DBUS_NAME_SIZE, "told");
    snprintf(info->interfaces[1]->signalMarker, SYSTEM_CALL_DBUS_MARKER_SIZE, "signal");
    info->interfaces[1]->signalHandler = take_signal;
    fuzz_expect(SystemCall_Dbus_Register(info) == DBUS_OK);

    const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), SYSTEM_CALL_DBUS_SOCKET_FORMAT, NAME);
    fuzz_expect(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0);
    FuzzInput input = {data, size};
    while (input.size > 0) {
        uint8_t piece[2048];
        const size_t taken = input.bytes(piece, 1U + input.byte() * 8U);
        if (taken > 0 && send(client, piece, taken, MSG_NOSIGNAL) < 0) {
            break;
        }
    }
    close(client);
    SystemCall_Dbus_UnRegister(info);  // waits for all that the bytes started
    SystemCall_DbusInfo_Free(info);
    return 0;
}
