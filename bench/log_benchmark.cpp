// Measures a log line and the calls of which it consists. Standard output, where the lines go,
// should be /dev/null, because a slow reader would dominate the time; results go to
// --benchmark_out.
#include <benchmark/benchmark.h>
#include <stdio.h>

#include "log/log_front_end.h"
#include "log/log_producer.h"
#include "log_by_hand.h"

namespace {

// Volatile, so that the compiler does not know the value: in the service it does not either.
const char* volatile partition = "kernel";

void line_of_service(benchmark::State& state) {
    Corvo_LogProducerInit(CORVO_LOG_MODULE_MASK);
    for (auto _ : state) {
        UPGRADE_LOG("partition: %s upgrade success", partition);
    }
    Corvo_LogProducerUnInit();
}
BENCHMARK(line_of_service);

void line_by_hand(benchmark::State& state) {
    const int socket = open_by_hand();
    for (auto _ : state) {
        log_by_hand(socket, "0523081502.417", __func__, __LINE__, LOG_MODULE_UPGRADE, 3, partition);
    }
}
BENCHMARK(line_by_hand);

void line_by_hand_with_time(benchmark::State& state) {
    const int socket = open_by_hand();
    for (auto _ : state) {
        log_by_hand_with_time(socket, __func__, __LINE__, LOG_MODULE_UPGRADE, 3, partition);
    }
}
BENCHMARK(line_by_hand_with_time);

// The default threshold of a process is level 3.
void line_below_level(benchmark::State& state) {
    for (auto _ : state) {
        CORVO_LOG(LOG_LEVEL_DETAIL, LOG_OUTPUT_CONSOLE, LOG_MODULE_UPGRADE,
                  "partition: %s upgrade success", partition);
    }
}
BENCHMARK(line_below_level);

void line_to_empty_call(benchmark::State& state) {
    for (auto _ : state) {
        empty_call(LOG_LEVEL_DETAIL, LOG_OUTPUT_CONSOLE,
                   CORVO_LOG_PREFIX "partition: %s upgrade success", __func__, __LINE__,
                   LOG_MODULE_UPGRADE, 2, partition);
    }
}
BENCHMARK(line_to_empty_call);

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);  // as the service does
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
