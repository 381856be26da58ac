// Counts heap allocations per log line, per copied chunk and per method call, in the whole process
// including its libraries. Prints "log_line N", "chunk N" and "method_call N" to standard error;
// the lines of the service go to standard output. Runs in scripts/private_root.
#include <nanomsg/nn.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "dbus/dbus_socket_common.h"
#include "hal/flash_mmc.h"
#include "log/log_front_end.h"
#include "log/log_producer.h"

extern "C" {

// glibc's internal names of the functions that are replaced below.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

std::atomic<long> g_allocations{0};

constexpr const char* SERVER = "allocation.count";
constexpr int REPEATS = 1000;
constexpr int CHUNKS = 256;

}  // namespace

extern "C" {

void* malloc(size_t size) {
    ++g_allocations;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    ++g_allocations;
    return __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) {
    ++g_allocations;
    return __libc_realloc(block, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    ++g_allocations;
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) {
    ++g_allocations;
    *block = __libc_memalign(alignment, size);
    return *block == nullptr;
}
}

namespace {

void report(const char* what, long count, int repeats) {
    fprintf(stderr, "%s %.3f\n", what, static_cast<double>(count) / repeats);
}

void count_log_line() {
    Corvo_LogProducerInit(CORVO_LOG_MODULE_MASK);
    // The first line opens the sockets, so it does not count.
    UPGRADE_LOG("partition: %s upgrade success", "kernel");
    const long before = g_allocations;
    for (int i = 0; i < REPEATS; ++i) {
        UPGRADE_LOG("partition: %s upgrade success", "kernel");
    }
    report("log_line", g_allocations - before, REPEATS);
    Corvo_LogProducerUnInit();
}

bool write_file(const char* path, size_t size) {
    const std::string content(size, 'c');
    FILE* const file = fopen(path, "w");
    const bool written =
        file != nullptr && fwrite(content.data(), 1, content.size(), file) == content.size();
    return file != nullptr && fclose(file) == 0 && written;
}

long allocations_of_copy(int chunks) {
    const size_t size = static_cast<size_t>(chunks) * FLASH_CHUNK_SIZE;
    if (!write_file("/tmp/chunks", size) || !write_file("/dev/block/by-name/chunks", size)) {
        return -1;
    }
    const long before = g_allocations;
    return flash_mmc_write_partition("chunks", "/tmp/chunks") == 0 ? g_allocations - before : -1;
}

// Compares copies of two sizes, so that allocations that do not depend on the size cancel out.
bool count_chunk() {
    const long few = allocations_of_copy(16);
    const long many = allocations_of_copy(16 + CHUNKS);
    report("chunk", many - few, CHUNKS);
    return few >= 0 && many >= 0;
}

int32_t answer(const void* /*in*/, uint32_t /*inLen*/, void* out, uint32_t /*outCap*/) {
    memcpy(out, "0", 1);
    return 1;
}

// The server is another process, as on a camera, so that its allocations are not counted.
void serve() {
    SystemCallDbusInfo* const server = SystemCall_DbusInfo_Alloc(1);
    snprintf(server->name, sizeof(server->name), "%s", SERVER);
    SystemCall_DbusInterface_Set_Method(server->interfaces[0], "answer", answer);
    SystemCall_Dbus_Register(server);
    while (true) {
        pause();
    }
}

bool count_method_call() {
    SystemCallDbusInfo* const client = SystemCall_DbusInfo_Alloc(0);
    snprintf(client->name, sizeof(client->name), "counter");
    snprintf(client->serverName, sizeof(client->serverName), "%s", SERVER);
    if (SystemCall_Dbus_Register(client) != DBUS_OK) {
        return false;
    }
    long before = 0;
    for (int i = -1; i < REPEATS; ++i) {
        before = i == 0 ? g_allocations.load() : before;
        char text[SYSTEM_CALL_DBUS_DATA_SIZE];
        if (SystemCall_Dbus_Call_Method(client, SERVER, "answer", "1", 1, text, sizeof(text), -1) !=
            1) {
            return false;
        }
    }
    report("method_call", g_allocations - before, REPEATS);
    SystemCall_Dbus_UnRegister(client);
    SystemCall_DbusInfo_Free(client);
    return true;
}

}  // namespace

int main() {
    const pid_t server = fork();
    if (server == 0) {
        serve();
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    count_log_line();
    const bool counted = count_chunk() && count_method_call();
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    return counted ? 0 : 1;
}
