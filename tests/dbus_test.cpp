// The transport and the system-call client: concurrent callers, time-outs, reconnection, and peers
// that violate the protocol.

#include "dbus/dbus_socket_common.h"
#include "dbus/system_call.h"
#include "endpoint.h"
#include "faults.h"
#include "files.h"
#include "pending_calls.h"
#include "record_stream.h"
#include "simulated_daemon.h"

extern "C" ssize_t __real_send(int fd, const void* data, size_t size, int flags);

namespace {

constexpr size_t WHOLE = sizeof(SystemCallDbusMsg);

std::atomic<size_t> g_longest_send{100};  // bytes that one send() transfers at most

// What the server sends before the correct reply to a command.
struct Misbehaviour {
    const char* command;
    int times;
    size_t size;  // bytes of each
    void (*spoil)(SystemCallDbusMsg& reply);
};
const Misbehaviour MISBEHAVIOURS[] = {
    {"7 wrong head", 1, WHOLE, [](SystemCallDbusMsg& m) { m.head = 0x12345678; }},
    {"7 garbage", 1, 8, [](SystemCallDbusMsg& m) { memcpy(&m, "rubbish\xA5", 8); }},
    {"7 flood", 2000, WHOLE, [](SystemCallDbusMsg& m) { m.id = ~m.id; }},
    {"7 endless method", 1, WHOLE, [](SystemCallDbusMsg& m) { memset(m.method, 'm', 64); }},
    {"7 right one twice", 1, WHOLE, [](SystemCallDbusMsg& m) { m.data[0] = '7'; }},
    {"2147483647 endless data", 1, WHOLE,
     [](SystemCallDbusMsg& m) { memset(m.data, '9', 1024), m.len = UINT32_MAX; }},
};

// Called before send(): sends the additional records for the command. Returns the number of bytes
// that send() then transfers.
size_t misbehave(int fd, const void* data, size_t size) {
    const auto& record = *static_cast<const SystemCallDbusMsg*>(data);
    if (size == WHOLE && record.ret > 0) {  // the beginning of a reply
        const std::string command(reinterpret_cast<const char*>(record.data), record.len);
        for (const Misbehaviour& misbehaviour : MISBEHAVIOURS) {
            SystemCallDbusMsg spoilt = record;
            spoilt.data[0] = '9';
            misbehaviour.spoil(spoilt);
            for (int i = 0; i < misbehaviour.times && command == misbehaviour.command; ++i) {
                __real_send(fd, &spoilt, misbehaviour.size, MSG_NOSIGNAL);
            }
        }
        if (command.starts_with("close at ")) {
            __real_send(fd, data, strtoul(command.c_str() + 9, nullptr, 10), MSG_NOSIGNAL);
            shutdown(fd, SHUT_RDWR);
        }
    }
    return std::min(size, g_longest_send.load());
}

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char SOCKET[] = "/tmp/dbus-system.call.daemon";

// Returns its input; for the input "late" after a second.
int32_t echo(const void* in, uint32_t inLen, void* out, uint32_t /*outCap*/) {
    std::this_thread::sleep_for(milliseconds(memcmp(in, "late", 4) == 0 ? 1000 : 0));
    memcpy(out, in, inLen);
    return static_cast<int32_t>(inLen);
}

// A client and its server with short transfers; checks that both close everything that they opened.
struct Dbus : testing::Test {
    void SetUp() override {
        devices.send = misbehave;
        devices.hurry = 1;
        ASSERT_EQ(system_call_init(), DBUS_OK);
    }
    void TearDown() override {
        system_call_exit();
        server.reset();
        devices = {};
        EXPECT_EQ(open_descriptors(), descriptors);
    }
    // Replaces the server by a socket that nobody accepts from; the client connects to it.
    corvo::UniqueFd listen_instead() {
        system_call_exit();
        server.reset();
        corvo::UniqueFd listener = listening_as_daemon();
        EXPECT_EQ(system_call_init(), DBUS_OK);
        return listener;
    }

    const int descriptors = open_descriptors();
    std::unique_ptr<SimulatedDaemon> server = std::make_unique<SimulatedDaemon>(echo, echo);
};

TEST_F(Dbus, CallsYieldWhatTheHandlerWrote) {
    const std::string announced = "reboot is caused by pid=" + std::to_string(getpid()) + " (" +
                                  lines_of(read_file("/proc/self/comm"))[0] + ")\033[0m\n";
    expect_cases("calls.txt", [&announced](std::istream& input) {
        std::string command;
        std::getline(input, command);
        command.erase(command.find_last_not_of(' ') + 1);
        CapturedOutput output;
        const int32_t result = system_call(command.c_str(), 5000);
        return std::to_string(result) + (contains(output.take(), announced) ? " announced" : "");
    });
    EXPECT_EQ(system_call_init(), DBUS_OK);
    const std::string longest(1023, '7');
    std::string buffer(1030, '#');
    EXPECT_EQ(popen_call(longest.c_str(), buffer.data(), 1030, 5000), 1023);
    EXPECT_EQ(buffer, longest + '\0' + "######");
    EXPECT_EQ(popen_call("ab", buffer.data(), 16, 5000), 2);
    EXPECT_EQ(buffer.substr(0, 17), "ab" + std::string(14, '\0') + '7');
    EXPECT_EQ(system_call((longest + "7").c_str(), 1000), DBUS_INVALID_ARGUMENT);
    EXPECT_EQ(system_call(nullptr, 1000), DBUS_INVALID_ARGUMENT);
    EXPECT_EQ(call_dbus_method("entry of a long name", "x", nullptr, 0, 5000), -1);
    EXPECT_EQ(call_dbus_method("unknown", "x", nullptr, 0, 100), DBUS_CALL_FAILED);
    system_call_exit();
    EXPECT_EQ(system_call("true", 5000), DBUS_CALL_FAILED);
}

TEST_F(Dbus, ConcurrentCallersGetTheirOwnReplies) {
    std::vector<std::future<bool>> callers;
    const auto limit = steady_clock::now() + milliseconds(10000);
    for (int c = 0; c < 8; ++c) {
        callers.push_back(std::async(std::launch::async, [c] {
            // Stop at the first failure: a reply was lost, or did not wake its caller.
            bool own = true;
            for (int number = c * 1000; own && number < c * 1000 + 20; ++number) {
                own = system_call(std::to_string(number).c_str(), 8000) == number;
            }
            return own;
        }));
    }
    for (std::future<bool>& caller : callers) {
        if (caller.wait_until(limit) != std::future_status::ready) {
            ADD_FAILURE() << "a caller hangs";  // the end of the test would wait for it
            abort();
        }
        EXPECT_TRUE(caller.get());
    }
}

TEST_F(Dbus, TimeOutIsKeptAndTheLateReplyIsDropped) {
    CapturedOutput output;
    char text[16];
    const auto start = steady_clock::now();
    EXPECT_EQ(popen_call("late", text, sizeof(text), 150), DBUS_CALL_FAILED);
    EXPECT_GE(steady_clock::now() - start, milliseconds(150));
    std::this_thread::sleep_for(milliseconds(1500));
    g_longest_send = 0;  // the call is lost, but not the connection
    EXPECT_EQ(system_call("4", 150), DBUS_CALL_FAILED);
    g_longest_send = 100;
    EXPECT_EQ(system_call("5", 10000), 5);
    const std::string lines = output.take();
    EXPECT_TRUE(contains(lines, "] system.call.daemon popen_call Wait Timeout\033[0m\n"));
    EXPECT_TRUE(contains(lines, "method head node is empty"));
}

TEST_F(Dbus, ServerWaitsForItsHandlersAndTheClientForANewServer) {
    CapturedOutput output;
    char text[16];
    std::thread caller([&text] { popen_call("late", text, sizeof(text), 3000); });
    std::this_thread::sleep_for(milliseconds(200));
    server.reset();  // waits until the handler has returned
    EXPECT_NE(access(SOCKET, F_OK), 0);
    server = std::make_unique<SimulatedDaemon>(echo, echo);
    EXPECT_EQ(system_call("2", 20000), 2);
    caller.join();
    EXPECT_FALSE(contains(output.take(), "Cannot accept")) << "its end was requested";
}

// In microseconds.
TEST_F(Dbus, EachReplyWaitsAMillisecondAndTheDaemonIsWaitedFor10Seconds) {
    int before = Faults::calls("usleep");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(system_call("1", 20000), 1);
    }
    EXPECT_EQ(Faults::calls("usleep") - before, 3000);
    for (const auto& [result, waited] : {std::pair(DBUS_OK, 10000), {DBUS_CALL_FAILED, 10000000}}) {
        system_call_exit();
        devices.hurry = 1000;  // while no reader runs, which reads this
        before = Faults::calls("usleep");
        EXPECT_EQ(system_call_init(), result);
        EXPECT_EQ(Faults::calls("usleep") - before, waited);
        server.reset();
    }
}

TEST_F(Dbus, ConnectionsToDyingServersAreReplacedUntilOneLives) {
    CapturedOutput output;
    for (int deaths = 0; deaths < 20; ++deaths) {
        const corvo::UniqueFd dying =
            listening_as_daemon();  // dies before it accepts, with the connection
        server.reset();
        std::this_thread::sleep_for(milliseconds(deaths));
    }
    server = std::make_unique<SimulatedDaemon>(echo, echo);
    EXPECT_EQ(system_call("8", 20000), 8);
    EXPECT_TRUE(contains(output.take(), "disconnect with server, reconnect, ret:-1 errno:104"));
    system_call_exit();
    devices.hurry = 10;
    ASSERT_EQ(system_call_init(), DBUS_OK);
    // Together more failed attempts than the client allows in sequence.
    for (int lives = 0; lives < 30; ++lives) {
        server.reset();
        std::this_thread::sleep_for(milliseconds(30));
        server = std::make_unique<SimulatedDaemon>(echo, echo);
        EXPECT_EQ(system_call("8", 20000), 8);
    }
}

TEST_F(Dbus, ServerThatHangsUpOnEverybodyIsGivenUp) {
    system_call_exit();
    devices.hurry = 100;
    const corvo::UniqueFd listener = listen_instead();
    std::thread hangsUp([&listener] {
        while (corvo::UniqueFd(accept4(listener.get(), nullptr, nullptr, 0)).valid()) {
        }
    });
    CapturedOutput output;
    int failed = 0;  // in sequence: a single failure can be that of a connection that is just lost
    EXPECT_TRUE(eventually(20000, [&failed] {
        failed = system_call("1", 10) == DBUS_WRITE_FAILED ? failed + 1 : 0;
        return failed == 20;
    }));
    shutdown(listener.get(), SHUT_RDWR);
    hangsUp.join();
    remove(SOCKET);
    EXPECT_TRUE(contains(output.take(), "Cannot reconnect to the server"));
}

TEST_F(Dbus, ServerWithoutMemoryForAConnectionRefusesTheNext) {
    server.reset();
    const Faults faults({{"calloc", 5, ENOMEM}});  // the first four create the endpoint
    server = std::make_unique<SimulatedDaemon>(echo, echo);
    g_longest_send = SIZE_MAX;
    system_call_reboot_unlocked();
    EXPECT_TRUE(eventually(5000, [] {
        return system_call_reboot_unlocked() == DBUS_CONNECT_FAILED && errno == ECONNREFUSED;
    }));
}

TEST_F(Dbus, RepliesThatBreakTheRulesDoNoHarm) {
    for (const Misbehaviour& misbehaviour : MISBEHAVIOURS) {
        EXPECT_EQ(system_call(misbehaviour.command, 20000), atoi(misbehaviour.command));
    }
    for (const int cut : {0, 1, 3, 4, 7, 100, 212, 1235}) {
        EXPECT_EQ(system_call(("close at " + std::to_string(cut)).c_str(), 100), DBUS_CALL_FAILED);
        EXPECT_EQ(system_call("7", 20000), 7) << cut;
    }
    std::string buffer(1030, '#');
    EXPECT_EQ(popen_call(MISBEHAVIOURS[5].command, buffer.data(), 5000, 20000), 23);
    EXPECT_EQ(buffer, std::string(1024, '9') + "######");
}

TEST_F(Dbus, PeerThatDoesNotReadCostsABoundedWait) {
    const corvo::UniqueFd listener = listen_instead();
    CapturedOutput output;
    const auto start = steady_clock::now();
    int32_t result = DBUS_CALL_FAILED;
    for (int i = 0; i < 2000 && result == DBUS_CALL_FAILED; ++i) {
        result = system_call("true", 1);
    }
    EXPECT_EQ(result, DBUS_WRITE_FAILED);
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(8));
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_TRUE(contains(output.take(), "disconnect with server, reconnect"));
    system_call_exit();
    devices.hurry = 1000;
    const std::vector<corvo::UniqueFd> waiting = fill_backlog();
    EXPECT_EQ(system_call_init(), DBUS_CONNECT_FAILED);
    remove(SOCKET);
}

// A daemon that does not accept connections yet, with a backlog of two.
TEST_F(Dbus, RebootReachesABusyDaemonAsAnyCommandDoes) {
    EXPECT_TRUE(system_call_reboot(5000));
    system_call_exit();
    EXPECT_FALSE(system_call_reboot(5000));
    const corvo::UniqueFd listener = listen_instead();
    g_longest_send = SIZE_MAX;
    EXPECT_TRUE(system_call_reboot(10)) << "not answered in time, but sent";
    EXPECT_EQ(system_call_reboot_unlocked(), DBUS_OK);
    devices.hurry = 1000;
    const int before = Faults::calls("usleep");
    EXPECT_EQ(system_call_reboot_unlocked(), DBUS_CONNECT_FAILED);
    EXPECT_EQ(Faults::calls("usleep") - before, 5000000);
    devices.hurry = 1;
    constexpr timeval PATIENCE = {.tv_sec = 5, .tv_usec = 0};
    setsockopt(listener.get(), SOL_SOCKET, SO_RCVTIMEO, &PATIENCE, sizeof(PATIENCE));
    SystemCallDbusMsg calls[3] = {};
    corvo::UniqueFd connections[3];
    std::thread daemon([&listener, &calls, &connections] {
        std::this_thread::sleep_for(milliseconds(200));
        for (int i = 0; i < 3; ++i) {
            connections[i].reset(accept4(listener.get(), nullptr, nullptr, 0));
            EXPECT_EQ(recv(connections[i].get(), &calls[i], WHOLE, MSG_WAITALL), WHOLE);
        }
    });
    EXPECT_EQ(system_call_reboot_unlocked(), DBUS_OK);
    daemon.join();
    remove(SOCKET);
    for (SystemCallDbusMsg& call : calls) {
        EXPECT_TRUE(std::string(call.sender).starts_with("system.call."));
        EXPECT_NE(call.id, 0);
        call.id = calls[0].id;
        EXPECT_EQ(memcmp(&call, calls, sizeof(call)), 0);
    }
}

TEST_F(Dbus, PlantedLinkIsReplacedWithoutTouchingItsTarget) {
    server.reset();
    write_file("/tmp/victim", "precious");
    ASSERT_EQ(symlink("/tmp/victim", SOCKET), 0);
    server = std::make_unique<SimulatedDaemon>(echo, echo);
    g_longest_send = SIZE_MAX;  // a signal handler sends only once
    EXPECT_EQ(system_call_reboot_unlocked(), DBUS_OK);
    struct stat status = {};
    EXPECT_EQ(lstat(SOCKET, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0600) << "others give no commands";
    remove(SOCKET);
    ASSERT_EQ(symlink("/tmp/victim", SOCKET), 0);  // replaced by another process while it serves
    system_call_exit();
    server.reset();
    EXPECT_EQ(remove(SOCKET), 0);
    EXPECT_EQ(read_file("/tmp/victim"), "precious");
    EXPECT_EQ(system_call_reboot_unlocked(), DBUS_CONNECT_FAILED);
    remove("/tmp/victim");
}

// Each system call of a server and a client, from start to end, fails once, or from then on.
TEST_F(Dbus, EveryFaultIsReportedAndNothingStaysOpen) {
    system_call_exit();
    server.reset();
    devices = {};
    devices.hurry = 1000;
    CapturedOutput output;
    std::istringstream cases(
        "calloc ENOMEM pthread_create EAGAIN socket EMFILE bind EADDRINUSE listen EADDRINUSE "
        "accept4 EMFILE connect ECONNREFUSED send EPIPE read EINTR read EIO fopen EMFILE "
        "opendir EMFILE");
    for (std::string call, error; cases >> call >> error;) {
        int place = 0, calls = 0;
        do {
            ++place;
            for (const int ordinal : {error == "EINTR" ? place : -place, place}) {
                SCOPED_TRACE(call + " " + std::to_string(ordinal));
                const Faults faults({{call.c_str(), ordinal, error_number(error)}});
                auto daemon = std::make_unique<SimulatedDaemon>(echo, echo);
                system_call_init();
                const int32_t result = system_call("5", 100);
                EXPECT_TRUE(result == 5 || result < 0) << result;
                system_call_reboot_unlocked();
                daemon.reset();
                daemon = std::make_unique<SimulatedDaemon>(echo, echo);
                system_call("5", 100);
                // A server that cannot accept any more refuses connections instead of letting
                // callers wait.
                EXPECT_TRUE(call != "accept4" || ordinal > 0 || eventually(2000, [] {
                                return system_call_reboot_unlocked() < 0 && errno == ECONNREFUSED;
                            }));
                system_call_exit();
                calls = Faults::calls(call.c_str());
            }
        } while (calls >= place);
    }
}

TEST_F(Dbus, SignalsReachTheirHandler) {
    static std::atomic<int> received{0};
    server.reset();
    server = std::make_unique<SimulatedDaemon>(echo, echo, [](const void* data, uint32_t size) {
        received = static_cast<int>(size) + *static_cast<const char*>(data);
    });
    SystemCallDbusInfo* const client = SystemCall_DbusInfo_Alloc(0);
    snprintf(client->serverName, sizeof(client->serverName), "%s", SYSTEM_CALL_DAEMON_NAME);
    ASSERT_EQ(SystemCall_Dbus_Register(client), DBUS_OK);
    EXPECT_EQ(write(client->connectionSocket, "rubbish", 7), 7);  // the reader skips it
    EXPECT_EQ(SystemCall_Dbus_Send_Signal(client, "d", "entry of a long name", "abc", 3), 1236);
    EXPECT_TRUE(eventually(10000, [] { return received == 'a' + 3; }));
    const char tooLong[1025] = {};
    EXPECT_EQ(SystemCall_Dbus_Send_Signal(client, "d", "s", tooLong, 1025), DBUS_INVALID_ARGUMENT);
    const Faults faults({{"send", 1, SHORT, 8}, {"send", 2, SHORT, 0}});  // then no bytes are sent
    EXPECT_EQ(SystemCall_Dbus_Send_Signal(client, "d", "s", "", 0), DBUS_WRITE_FAILED);
    SystemCall_Dbus_UnRegister(client);
    // The reader finds a record that begins at any byte of the stream.
    RecordReader shifted = {};
    memcpy(shifted.bytes + 1, &SYSTEM_CALL_DBUS_HEAD, sizeof(SYSTEM_CALL_DBUS_HEAD));
    EXPECT_EQ(record_accept(&shifted, 5), RECORD_BAD_HEAD);
    EXPECT_EQ(shifted.filled, 4U);
    // No call is pending, so no reply is delivered.
    SystemCallDbusMsg none = {}, other = {};
    pthread_mutex_init(&client->lock, nullptr);
    EXPECT_EQ(SystemCall_Dbus_Method_Wait(client, &none, 1), DBUS_INVALID_ARGUMENT);
    EXPECT_EQ(SystemCall_Dbus_Method_Msg_Pop(client, &none, &none), DBUS_INVALID_ARGUMENT);
    EXPECT_EQ(SystemCall_Dbus_Method_Msg_Push(client, &none), DBUS_OK);
    const auto guarded = {SystemCall_Dbus_Send_Signal(nullptr, "d", "s", "", 0),
                          SystemCall_Dbus_Call_Method(nullptr, "d", "m", "", 0, nullptr, 0, 1),
                          SystemCall_Dbus_Method_Msg_Push(client, nullptr),
                          SystemCall_Dbus_Method_Msg_Result(client, nullptr),
                          SystemCall_Dbus_Method_Msg_Pop(client, nullptr, &none),
                          SystemCall_Dbus_Method_Msg_Pop(client, &none, nullptr)};
    EXPECT_EQ(std::vector<int32_t>(guarded), std::vector<int32_t>(6, DBUS_INVALID_ARGUMENT));
    EXPECT_EQ(Dbus_Lock(nullptr), DBUS_LOCK_NULL);
    EXPECT_EQ(Dbus_UnLock(nullptr), DBUS_UNLOCK_NULL);
    Dbus_Lock(client);
    EXPECT_EQ(pthread_mutex_trylock(&client->lock), EBUSY);
    Dbus_UnLock(client);
    other.id = 1;
    EXPECT_EQ(SystemCall_Dbus_Method_Wait(client, &other, 1), DBUS_NOT_PENDING);
    const auto begin = steady_clock::now();  // 999 ms nearly always reach into the next second
    EXPECT_EQ(SystemCall_Dbus_Method_Wait(client, &none, 999), METHOD_WAIT_TIMED_OUT);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(999));
    EXPECT_EQ(SystemCall_Dbus_Method_Msg_Pop(client, &other, &none), DBUS_NOT_PENDING);
    EXPECT_EQ(SystemCall_Dbus_Method_Msg_Pop(client, &none, &none), METHOD_POP_NO_REPLY);
    EXPECT_EQ(SystemCall_Dbus_Method_Msg_Push(client, &none), DBUS_OK);
    EXPECT_EQ(SystemCall_Dbus_Method_Msg_Result(client, &none), DBUS_OK);
    EXPECT_EQ(SystemCall_Dbus_Method_Msg_Result(client, &none), DBUS_CALL_FAILED);
    EXPECT_EQ(SystemCall_Dbus_Method_Msg_Pop(client, &none, &none), METHOD_POP_REPLIED);
    // A caller does not close a broken connection: the reader replaces it.
    int lost[2], good[2];
    ASSERT_TRUE(socketpair(AF_UNIX, SOCK_STREAM, 0, lost) == 0 &&
                socketpair(AF_UNIX, SOCK_STREAM, 0, good) == 0);
    close(lost[1]);
    client->connectionSocket = lost[0];
    client->reading = true;
    std::thread reader([client, &good] {
        std::this_thread::sleep_for(milliseconds(100));
        Dbus_Lock(client);
        client->connectionSocket = good[0];
        Dbus_UnLock(client);
    });
    EXPECT_EQ(SystemCall_Dbus_Send_Signal(client, "d", "s", "", 0), 1236);
    reader.join();
    for (const int fd : {lost[0], good[0], good[1]}) {
        close(fd);
    }
    client->serverName[0] = '\0';  // without a server there is no peer to send to
    EXPECT_EQ(SystemCall_Dbus_Send_Signal(client, "d", "s", "", 0), DBUS_INVALID_ARGUMENT);
    SystemCall_DbusInfo_Free(client);
    EXPECT_EQ(SystemCall_DbusInfo_Alloc(257), nullptr);
}

}  // namespace
