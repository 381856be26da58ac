// The transport and the system-call client: concurrent callers, time-outs, reconnection and peers
// that do not keep to the protocol.
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "dbus/dbus_socket_common.h"
#include "dbus/system_call.h"
#include "endpoint.h"
#include "files.h"

namespace {

std::atomic<size_t> g_longest_send{100};  // what one send() moves at most

}  // namespace

extern "C" ssize_t __real_send(int fd, const void* data, size_t size, int flags);
extern "C" ssize_t __wrap_send(int fd, const void* data, size_t size, int flags) {
    return __real_send(fd, data, std::min(size, g_longest_send.load()), flags);
}

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char SOCKET[] = "/tmp/dbus-system.call.daemon";

// Yields its input, "late" after a second.
int32_t echo(const void* in, uint32_t inLen, void* out, uint32_t /*outCap*/) {
    std::this_thread::sleep_for(milliseconds(memcmp(in, "late", 4) == 0 ? 1000 : 0));
    memcpy(out, in, inLen);
    return static_cast<int32_t>(inLen);
}

// The real server half, as the daemon uses it.
class Server {
  public:
    Server() : info_(SystemCall_DbusInfo_Alloc(3)) {
        snprintf(info_->name, sizeof(info_->name), "%s", SYSTEM_CALL_DAEMON_NAME);
        int count = 0;
        for (const char* name : {SYSTEM_CALL_METHOD, POPEN_CALL_METHOD, "no_handler"}) {
            SystemCallDbusInterface* const entry = info_->interfaces[count++];
            snprintf(entry->name, sizeof(entry->name), "%s", name);
            entry->methodMarker[0] = 'm';
            entry->methodHandler = count < 3 ? echo : nullptr;
        }
        EXPECT_EQ(SystemCall_Dbus_Register(info_), DBUS_OK);
    }
    ~Server() {
        SystemCall_Dbus_UnRegister(info_);
        SystemCall_DbusInfo_Free(info_);
    }

  private:
    SystemCallDbusInfo* info_;
};

// What the hostile server sends before the right reply, when a command of this name asks for it.
struct Misbehaviour {
    const char* command;
    int times;
    size_t size;  // bytes of each
    void (*spoil)(SystemCallDbusMsg& reply);
};
constexpr size_t WHOLE = sizeof(SystemCallDbusMsg);
const Misbehaviour MISBEHAVIOURS[] = {
    {"wrong head", 1, WHOLE, [](SystemCallDbusMsg& m) { m.head = 0x12345678; }},
    {"garbage", 1, 8, [](SystemCallDbusMsg& m) { memcpy(&m, "rubbish\xA5", 8); }},
    {"flood", 2000, WHOLE, [](SystemCallDbusMsg& m) { m.id = ~m.id; }},
    {"endless method", 1, WHOLE, [](SystemCallDbusMsg& m) { memset(m.method, 'm', 64); }},
    {"right one twice", 1, WHOLE, [](SystemCallDbusMsg& m) { m.data[0] = '7', m.len = 1; }},
    {"endless data", 1, WHOLE, [](SystemCallDbusMsg& m) { m.len = UINT32_MAX; }},
};

// A server that does to its clients what their commands ask for. Its right reply is "7".
class HostileServer {
  public:
    HostileServer() {
        const sockaddr_un address = dbus_server_address(SYSTEM_CALL_DAEMON_NAME);
        const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
        EXPECT_EQ(bind(listener_.get(), generic, sizeof(address)), 0);
        EXPECT_EQ(listen(listener_.get(), 5), 0);
        thread_ = std::thread([this] {
            for (int fd = 0; (fd = accept(listener_.get(), nullptr, nullptr)) >= 0;) {
                serve(corvo::UniqueFd(fd));
            }
        });
    }
    ~HostileServer() {
        system_call_exit();  // or the thread might wait for the client for ever
        shutdown(listener_.get(), SHUT_RDWR);
        thread_.join();
        remove(SOCKET);
    }

  private:
    static void serve(const corvo::UniqueFd& client) {
        SystemCallDbusMsg call = {};
        while (recv(client.get(), &call, WHOLE, MSG_WAITALL) == WHOLE) {
            const std::string command(reinterpret_cast<const char*>(call.data), call.len);
            SystemCallDbusMsg reply = call;
            reply.ret = 5000;
            for (const Misbehaviour& misbehaviour : MISBEHAVIOURS) {
                memset(reply.data, '9', sizeof(reply.data));
                SystemCallDbusMsg spoilt = reply;
                misbehaviour.spoil(spoilt);
                for (int i = 0; command == misbehaviour.command && i < misbehaviour.times; ++i) {
                    __real_send(client.get(), &spoilt, misbehaviour.size, MSG_NOSIGNAL);
                }
            }
            if (command == "read no more") {
                pollfd end = {.fd = client.get(), .events = 0, .revents = 0};
                poll(&end, 1, -1);
            }
            reply.len = 1;
            reply.data[0] = '7';
            const bool closes = command.starts_with("close at ");
            const size_t size = closes ? strtoul(command.c_str() + 9, nullptr, 10) : WHOLE;
            __real_send(client.get(), &reply, size, MSG_NOSIGNAL);
            if (closes) {
                return;
            }
        }
    }

    corvo::UniqueFd listener_{socket(AF_UNIX, SOCK_STREAM, 0)};
    std::thread thread_;
};

// A client's life around a test, on short transfers; checks that nothing it opened stays.
class Dbus : public testing::Test {
  protected:
    void TearDown() override {
        system_call_exit();
        EXPECT_EQ(open_descriptors(), descriptors_);
    }

  private:
    int descriptors_ = open_descriptors();
};

TEST_F(Dbus, CallsYieldWhatTheHandlerWrote) {
    CapturedOutput output;
    EXPECT_EQ(system_call("true", 100), DBUS_CALL_FAILED);
    EXPECT_NE(output.take().find("please run system_call_init first"), std::string::npos);
    const Server server;
    ASSERT_EQ(system_call_init(), DBUS_OK);
    EXPECT_EQ(system_call_init(), DBUS_OK);
    for (const char* text : {"0", "256", "-3", "", "12 apes", "99999999999"}) {
        EXPECT_EQ(system_call(text, 5000), std::min(atoll(text), 2147483647LL)) << text;
    }
    const std::string longest(1023, '7');
    std::string buffer(1030, '#');
    EXPECT_EQ(popen_call(longest.c_str(), buffer.data(), 1030, 5000), 1023);
    EXPECT_EQ(buffer, longest + '\0' + "######");
    EXPECT_EQ(popen_call("ab", buffer.data(), 16, 5000), 2);
    EXPECT_EQ(buffer.substr(0, 17), "ab" + std::string(14, '\0') + '7');
    EXPECT_EQ(system_call((longest + "7").c_str(), 1000), DBUS_INVALID_ARGUMENT);
    EXPECT_EQ(system_call(nullptr, 1000), DBUS_INVALID_ARGUMENT);
    EXPECT_EQ(call_dbus_method("no_handler", "x", nullptr, 0, 5000), -1);
    EXPECT_EQ(call_dbus_method("unknown", "x", nullptr, 0, 100), DBUS_CALL_FAILED);
}

TEST_F(Dbus, ConcurrentCallersGetTheirOwnReplies) {
    const Server server;
    ASSERT_EQ(system_call_init(), DBUS_OK);
    std::vector<std::thread> callers;
    for (int c = 0; c < 8; ++c) {
        callers.emplace_back([c] {
            for (int number = c * 1000; number < c * 1000 + 20; ++number) {
                EXPECT_EQ(system_call(std::to_string(number).c_str(), 20000), number);
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
}

TEST_F(Dbus, TimeOutIsKeptAndTheLateReplyIsDropped) {
    const Server server;
    ASSERT_EQ(system_call_init(), DBUS_OK);
    CapturedOutput output;
    char text[16];
    const auto start = steady_clock::now();
    EXPECT_EQ(popen_call("late", text, sizeof(text), 150), DBUS_CALL_FAILED);
    EXPECT_GE(steady_clock::now() - start, milliseconds(150));
    std::this_thread::sleep_for(milliseconds(1500));
    EXPECT_EQ(system_call("5", 10000), 5);
    const std::string lines = without_source_lines(output.take());
    EXPECT_TRUE(lines.starts_with(
        "\033[33mDBUS: WARN: [dbus/dbus_socket_common:SystemCall_Dbus_Call_Method:"
        "#] system.call.daemon popen_call Wait Timeout\033[0m\n"
        "\033[31mDBUS: ERROR: [dbus/dbus_socket_common:SystemCall_Dbus_Call_Method:"
        "#] system.call.daemon popen_call failed (ret = -1)\033[0m\n"))
        << lines;
    EXPECT_NE(lines.find("method head node is empty"), std::string::npos);
}

TEST_F(Dbus, ServerWaitsForItsHandlersAndTheClientForANewServer) {
    auto server = std::make_unique<Server>();
    ASSERT_EQ(system_call_init(), DBUS_OK);
    char text[16];
    std::thread caller([&text] { popen_call("late", text, sizeof(text), 3000); });
    std::this_thread::sleep_for(milliseconds(200));
    server.reset();  // returns when the handler has
    EXPECT_NE(access(SOCKET, F_OK), 0);
    server = std::make_unique<Server>();
    EXPECT_EQ(system_call("2", 20000), 2);
    caller.join();
}

TEST_F(Dbus, RepliesThatBreakTheRulesDoNoHarm) {
    const HostileServer server;
    ASSERT_EQ(system_call_init(), DBUS_OK);
    for (const char* command : {"wrong head", "garbage glued to the record", "a flood of other ids",
                                "a method without terminator", "twice", "nothing wrong"}) {
        EXPECT_EQ(system_call(command, 10000), 7) << command;
    }
    for (const int cut : {0, 1, 3, 4, 7, 100, 212, 1235}) {
        EXPECT_EQ(system_call(("close at " + std::to_string(cut)).c_str(), 100), DBUS_CALL_FAILED);
        EXPECT_EQ(system_call("connected again", 10000), 7) << cut;
    }
    EXPECT_EQ(system_call("endless data", 3000), 2147483647);
    std::string buffer(1030, '#');
    EXPECT_EQ(popen_call("endless data", buffer.data(), 5000, 3000), 5000);
    EXPECT_EQ(buffer, std::string(1024, '9') + "######");
    const auto start = steady_clock::now();
    int32_t result = DBUS_CALL_FAILED;
    for (int i = 0; i < 2000 && result == DBUS_CALL_FAILED; ++i) {
        result = system_call("read no more", 1);
    }
    EXPECT_EQ(result, DBUS_WRITE_FAILED);
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(20));
}

TEST_F(Dbus, RebootIsAnnouncedByItsFirstWordOnly) {
    const Server server;
    ASSERT_EQ(system_call_init(), DBUS_OK);
    const std::string announced =
        "reboot is caused by pid=" + std::to_string(getpid()) + " (dbus_test)\033[0m\n";
    for (const auto& [command, announces] : {std::pair("reboot", true),
                                             {"/sbin/reboot", true},
                                             {"  reboot -f", true},
                                             {"rebooter", false},
                                             {"echo reboot", false},
                                             {"/bin/sh -c reboot", false},
                                             {"", false}}) {
        CapturedOutput output;
        system_call(command, 5000);
        EXPECT_EQ(output.take().find(announced) != std::string::npos, announces) << command;
    }
}

TEST_F(Dbus, PlantedLinkIsReplacedWithoutTouchingItsTarget) {
    write_file("/tmp/victim", "precious");
    ASSERT_EQ(symlink("/tmp/victim", SOCKET), 0);
    g_longest_send = SIZE_MAX;  // a signal handler sends only once
    {
        const Server server;
        EXPECT_EQ(system_call_reboot_unlocked(), DBUS_OK);
        struct stat status = {};
        EXPECT_EQ(lstat(SOCKET, &status), 0);
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        remove(SOCKET);
        ASSERT_EQ(symlink("/tmp/victim", SOCKET), 0);  // planted while it serves
    }
    EXPECT_EQ(access(SOCKET, F_OK), 0);
    EXPECT_EQ(read_file("/tmp/victim"), "precious");
    EXPECT_EQ(system_call_reboot_unlocked(), DBUS_CONNECT_FAILED);
    remove(SOCKET);
    remove("/tmp/victim");
}

}  // namespace
