// Fuzzes the client's framing and its list of pending calls with bytes from a daemon that arrive in
// pieces of any size.
#include <fcntl.h>
#include <unistd.h>

#include "fuzz_input.h"
#include "pending_calls.h"
#include "record_stream.h"

namespace {

SystemCallDbusInfo g_endpoint;
constexpr int32_t CALL_ID = 0x01020304;

void check_record(const SystemCallDbusMsg& record) {
    fuzz_expect(record.head == SYSTEM_CALL_DBUS_HEAD);
    fuzz_expect(record.len <= SYSTEM_CALL_DBUS_DATA_SIZE);
    fuzz_expect(memchr(record.method, '\0', sizeof(record.method)) != nullptr);
    fuzz_expect(memchr(record.sender, '\0', sizeof(record.sender)) != nullptr);
    fuzz_expect(memchr(record.destination, '\0', sizeof(record.destination)) != nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    pthread_mutex_init(&g_endpoint.lock, nullptr);
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input = {data, size};
    SystemCallDbusMsg call = {};
    call.id = CALL_ID;
    memcpy(call.method, "system_call", sizeof("system_call"));
    SystemCall_Dbus_Method_Msg_Push(&g_endpoint, &call);
    RecordReader reader = {};
    while (input.size > 0) {
        if (reader.complete) {
            reader = {};
        }
        const size_t room = sizeof(reader.bytes) - reader.filled;
        const size_t piece = std::min<size_t>(room, 1U + input.byte() * 8U);
        const size_t taken = input.bytes(reader.bytes + reader.filled, piece);
        if (taken == 0) {
            break;
        }
        if (record_accept(&reader, static_cast<uint32_t>(taken)) == RECORD_COMPLETE) {
            check_record(reader.record);
            SystemCall_Dbus_Method_Msg_Result(&g_endpoint, &reader.record);
            SystemCall_Dbus_Method_Wakeup(&g_endpoint, &reader.record);
        }
        fuzz_expect(reader.complete || reader.filled < sizeof(reader.bytes));
    }
    SystemCallDbusMsg reply = {};
    const int32_t popped = SystemCall_Dbus_Method_Msg_Pop(&g_endpoint, &call, &reply);
    fuzz_expect(popped == METHOD_POP_NO_REPLY ||
                (popped == METHOD_POP_REPLIED && reply.id == CALL_ID));
    return 0;
}
