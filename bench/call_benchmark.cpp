// Measures a method call of the transport, and two baselines: a ping-pong on a socket pair, and the
// threads alone through which a call passes. The server's fixed pause is removed (no_pauses.cpp).
// Runs in scripts/private_root.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <string.h>

#include "call_by_hand.h"
#include "dbus/dbus_socket_common.h"

namespace {

constexpr const char* SERVER = "call.benchmark";
constexpr const char* METHOD = "answer";

SystemCallDbusInfo* server;
SystemCallDbusInfo* client;

int32_t answer(const void* /*in*/, uint32_t /*inLen*/, void* out, uint32_t /*outCap*/) {
    memcpy(out, "0", 1);
    return 1;
}

void open_endpoints(const benchmark::State& /*state*/) {
    server = SystemCall_DbusInfo_Alloc(1);
    snprintf(server->name, sizeof(server->name), "%s", SERVER);
    SystemCall_DbusInterface_Set_Method(server->interfaces[0], METHOD, answer);
    client = SystemCall_DbusInfo_Alloc(0);
    snprintf(client->name, sizeof(client->name), "caller");
    snprintf(client->serverName, sizeof(client->serverName), "%s", SERVER);
    if (SystemCall_Dbus_Register(server) != DBUS_OK ||
        SystemCall_Dbus_Register(client) != DBUS_OK) {
        abort();
    }
}

void close_endpoints(const benchmark::State& /*state*/) {
    for (SystemCallDbusInfo* endpoint : {client, server}) {
        SystemCall_Dbus_UnRegister(endpoint);
        SystemCall_DbusInfo_Free(endpoint);
    }
}

void method_call(benchmark::State& state) {
    char text[SYSTEM_CALL_DBUS_DATA_SIZE];
    for (auto _ : state) {
        if (SystemCall_Dbus_Call_Method(client, SERVER, METHOD, "1", 1, text, sizeof(text), -1) !=
            1) {
            abort();
        }
    }
}
#define CALLERS Setup(open_endpoints)->Teardown(close_endpoints)->UseRealTime()
BENCHMARK(method_call)->CALLERS->Threads(1)->Threads(8);

void ping_pong(benchmark::State& state) {
    PingPong pair;
    for (auto _ : state) {
        pair.call();
    }
}
BENCHMARK(ping_pong)->UseRealTime()->Threads(1)->Threads(8);

Relay* relay;

void bare_threads(benchmark::State& state) {
    for (auto _ : state) {
        relay->call();
    }
}
BENCHMARK(bare_threads)
    ->Setup([](const benchmark::State&) { relay = new Relay; })
    ->Teardown([](const benchmark::State&) { delete relay; })
    ->UseRealTime()
    ->Threads(1)
    ->Threads(8);

}  // namespace

BENCHMARK_MAIN();
